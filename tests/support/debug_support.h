// Peers of the debug outlet: pseudo terminals and TCP clients.
#ifndef TAVOR_TESTS_DEBUG_SUPPORT_H
#define TAVOR_TESTS_DEBUG_SUPPORT_H

#include "support/wait.h"

#include <cstdint>
#include <string>

// Reads from the descriptor until count bytes came, its end or the limit.
std::string read_bytes(int fd, size_t count);
// Reads until the text has come; returns all that came with it, or less at its end or at the limit.
std::string read_until(int fd, const std::string& text);
// Reads what is there without waiting, at most 64 KiB.
std::string read_now(int fd);

// All 256 byte values, the flow control characters and the escape byte among them, some of them in a row.
std::string binary_data();

// Entries of /proc/self/fd and /proc/self/task.
size_t open_descriptors();
size_t running_threads();

inline constexpr size_t kQueuedBlockSize = 8 + sizeof(void*); // of a block's message in the outlet's queue

// Makes the message queue of the outlet full at this many messages.
void limit_queue(int queue, unsigned messages);

// A pseudo terminal: the tests hold the master, the outlet opens the path. The slave is held open too, so
// that the master never sees a hang-up.
struct PseudoTerminal {
    PseudoTerminal();
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    void write(const std::string& bytes) const; // as the peer of the line
    void fill() const;                          // until the line takes no more
    void hang_up();

    int master;
    int slave;
    std::string path;
};

// A port of 127.0.0.1 that nobody uses.
uint16_t free_port();
// Listens on the port of 127.0.0.1 until the descriptor returned is closed.
int hold_port(uint16_t port);

struct TcpClient {
    explicit TcpClient(uint16_t port, int receive_buffer = 0);
    ~TcpClient();
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    void send(const std::string& bytes) const;
    bool gets(const std::string& text) const; // waits for the text
    bool ends() const;                        // waits for the end of the connection
    void reset();                             // closes with a reset instead of an end
    void close();

    int fd;
};

#endif
