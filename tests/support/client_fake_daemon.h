// A daemon's socket that a test plays.
#ifndef TAVOR_TESTS_CLIENT_FAKE_DAEMON_H
#define TAVOR_TESTS_CLIENT_FAKE_DAEMON_H

#include "tavor/protocol.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <vector>

// A response as the daemon builds it.
tavor_response make_response(uint32_t code, uint32_t value, const std::string& payload = "");

// A position block with these texts; a height may run on into the axis after it.
tavor_response make_position(const std::string& utc, const std::string& latitude,
                             const std::string& longitude, const std::string& height);

struct FakeDaemon {
    // Runs on the daemon's thread for each request.
    using Script = std::function<void(FakeDaemon&, const tavor_request&)>;

    FakeDaemon(std::string path, Script script);
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    // To the sender of the latest request, for the script only. False when it is gone.
    bool send(const tavor_response& response) const {
        return send_bytes(&response, sizeof response);
    }
    bool send_bytes(const void* data, size_t size) const;

    // Waits until this many requests have come; false when a generous limit passed.
    bool wait_requests(size_t count);
    // Types of all requests so far.
    std::vector<uint32_t> types();
    // Texts of all requests so far.
    std::vector<std::string> texts();
    // Address of the latest request.
    sockaddr_un sender();

    const std::string path;

private:
    void serve();
    void receive_one();

    Script script;
    int socket = -1;
    int quit[2] = {-1, -1};
    sockaddr_un peer = {};
    socklen_t peer_length = 0;
    std::mutex mutex;
    std::condition_variable received;
    std::vector<tavor_request> requests;
    std::thread thread;
};

#endif
