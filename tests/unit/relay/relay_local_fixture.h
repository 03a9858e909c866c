// Local clients of a relay in a loop, beside a daemon that the test plays.
#ifndef TAVOR_TESTS_RELAY_LOCAL_FIXTURE_H
#define TAVOR_TESTS_RELAY_LOCAL_FIXTURE_H

#include "hub/hub.h"
#include "local/local_clients.h"
#include "support/relay_loop.h"

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

inline std::string numbered(int number) {
    return "$GNGGA," + std::to_string(number) + "\r\n";
}

inline std::string text_of(const tavor_response& response) {
    return reinterpret_cast<const char*>(response.payload);
}

struct RelayLocal : testing::Test {
    explicit RelayLocal(std::chrono::milliseconds second = kShortSecond, int send_buffer = 0) {
        loop.second = second;
        loop.send_buffer = send_buffer;
        loop.open(false);
        loop.open_local();
        chmod(loop.directory.path.c_str(), 0755); // some clients have no rights
        chmod(loop.local_path.c_str(), 0666);
        loop.start_daemon();
        chmod(loop.daemon_path.c_str(), 0666); // for what is turned as nobody
    }

    std::unique_ptr<PlayedClient> client(const std::string& name, size_t length = 108) const {
        return std::make_unique<PlayedClient>(loop.local_path, abstract_address(unique(name), length));
    }
    std::string unique(const std::string& name) const {
        return name + std::to_string(getpid());
    }
    // As the relay knows a client of that name.
    LocalClient& known(const std::string& name) const {
        const uint16_t family = AF_UNIX;
        return local_clients_of(std::string(reinterpret_cast<const char*>(&family), sizeof family) +
                                    abstract_address(unique(name)),
                                geteuid());
    }
    // Turns until the client has an answer of the code.
    bool answered(PlayedClient& one, uint32_t code) const {
        return loop.until([&] {
            one.read();
            return one.count(code) > 0;
        });
    }
    bool started(PlayedClient& one) const {
        return one.send(TAVOR_REQUEST_START) && answered(one, TAVOR_CODE_START);
    }
    // Lets the daemon send a sentence and turns until it was handed out.
    void push(uint32_t code, const std::string& payload) const {
        const uint64_t before = hub_counters().items;
        ASSERT_TRUE(loop.daemon->send(relay_response(code, 0, payload)));
        ASSERT_TRUE(loop.until([&] { return hub_counters().items > before; }));
        event_base_loop(loop.base.get(), EVLOOP_NONBLOCK);
    }

    RelayLoop loop;
};

#endif
