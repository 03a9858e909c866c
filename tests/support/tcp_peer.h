// A TCP client that a test plays on loopback.
#ifndef TAVOR_TESTS_TCP_PEER_H
#define TAVOR_TESTS_TCP_PEER_H

#include <string>

// A port of loopback that is free now.
int free_tcp_port();

struct TcpPeer {
    // From another address of the loopback network on request.
    explicit TcpPeer(int port, int receive_buffer = 0, const char* own_address = nullptr);
    ~TcpPeer();
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    bool send(const std::string& text) const;
    // Takes all that has come into `got`, without waiting. False when the other end has closed.
    bool read();
    // How many pieces the other end's data have come in so far.
    unsigned pieces() const;
    // Ends at once; `reset`: without a word of farewell.
    void end(bool reset = false);

    std::string got;

private:
    int fd = -1;
};

#endif
