// The relay's modules in a loop that the test turns itself, between a daemon and clients that the test plays.
#ifndef TAVOR_TESTS_RELAY_LOOP_H
#define TAVOR_TESTS_RELAY_LOOP_H

#include "support/private_dir.h"
#include "system/event_guard.h"
#include "tavor/protocol.h"
#include "upstream/positioning.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Length of a second of the relay's limits in tests.
inline constexpr std::chrono::milliseconds kShortSecond{20};

tavor_response relay_response(uint32_t code, uint32_t value, const std::string& payload = "");

// A daemon's socket. It answers each request with success unless told otherwise.
struct PlayedDaemon {
    explicit PlayedDaemon(std::string socket_path);
    ~PlayedDaemon();
    PlayedDaemon(const PlayedDaemon&) = delete;
    PlayedDaemon& operator=(const PlayedDaemon&) = delete;

    // Takes what has come, and answers.
    void turn();
    // To whoever asked last. False when its queue is full or it is gone.
    bool send(const tavor_response& response) const;
    size_t count(uint32_t type) const;

    const std::string path;
    std::vector<tavor_request> requests;
    bool answers = true;
    uint32_t value = 0; // of the answers
    std::string peer;   // address of whoever asked last: family and name

private:
    int fd = -1;
};

// A client's socket, bound to these bytes after the family; none: to nothing.
struct PlayedClient {
    PlayedClient(std::string relay_path, const std::string& address, bool connected = true);
    ~PlayedClient();
    PlayedClient(const PlayedClient&) = delete;
    PlayedClient& operator=(const PlayedClient&) = delete;

    bool send(uint32_t type, const std::string& text = "") const;
    bool send_bytes(const void* data, size_t size) const;
    // Takes all that waits in the socket.
    void read();
    size_t count(uint32_t code) const;
    // Value of the latest datagram with the code, -2 when there is none.
    int64_t value(uint32_t code) const;
    void close_socket();

    std::vector<tavor_response> got;

private:
    std::string relay;
    bool is_connected;
    int fd = -1;
};

// An abstract address of any length.
std::string abstract_address(const std::string& name, size_t length = 108);

struct RelayLoop {
    RelayLoop();
    ~RelayLoop();
    RelayLoop(const RelayLoop&) = delete;
    RelayLoop& operator=(const RelayLoop&) = delete;

    // Opens hub, upstream and positioning.
    void open(bool always, std::chrono::milliseconds stop_delay = std::chrono::milliseconds(50));
    // Serves local clients too, at local_path.
    void open_local();
    // Makes the daemon, or another one in its place.
    void start_daemon();
    // Turns loop and daemon until the condition holds; false when a generous limit passed.
    bool until(const std::function<bool()>& condition) const;
    // Turns loop and daemon for a time.
    void turn_for(std::chrono::milliseconds time) const;

    std::chrono::milliseconds second = kShortSecond; // of the relay's limits
    bool left_on = false;                            // positioning, maybe, by a relay that has ended
    int send_buffer = 0;                             // of the local clients' socket, when it is to be smaller
    PrivateDir directory;
    std::string daemon_path = (directory.path / "daemon").string();
    std::string local_path = (directory.path / "relay").string();
    EventBasePtr base;
    std::unique_ptr<PlayedDaemon> daemon;
};

#endif
