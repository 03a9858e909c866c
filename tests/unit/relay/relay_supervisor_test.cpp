#include "system/supervisor.h"

#include "support/private_dir.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct RelaySupervisor : testing::Test {
    ~RelaySupervisor() override {
        for (const char* name :
             {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "LISTEN_PID", "LISTEN_FDS"}) {
            unsetenv(name);
        }
    }

    // What it is told through a socket of this name, '@' for an abstract one.
    static std::string told(const std::string& name, const char* state) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        address.sun_path[0] = name[0] == '@' ? '\0' : name[0];
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        const auto length = static_cast<socklen_t>(sizeof(sa_family_t) + name.size());
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        supervisor_tell(state);
        char text[64] = {};
        const ssize_t size = recv(fd, text, sizeof text, 0);
        close(fd);
        return size < 0 ? "nothing" : std::string(text, static_cast<size_t>(size));
    }

    PrivateDir directory;
};

TEST_F(RelaySupervisor, IsToldThroughAPathOrAnAbstractName) {
    EXPECT_EQ(told((directory.path / "notify").string(), "READY=1"), "READY=1");
    EXPECT_EQ(told("@relay-test-" + std::to_string(getpid()), "WATCHDOG=1"), "WATCHDOG=1");
}

TEST_F(RelaySupervisor, IsNoneWithoutItsVariables) {
    supervisor_tell("READY=1");
    EXPECT_EQ(supervisor_watchdog().count(), 0);
    EXPECT_EQ(supervisor_socket(SOCK_DGRAM), -1);
}

TEST_F(RelaySupervisor, WantsToHearTwiceInItsLimit) {
    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(supervisor_watchdog().count(), 15000);
    setenv("WATCHDOG_PID", "1", 1); // another process
    EXPECT_EQ(supervisor_watchdog().count(), 0);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(supervisor_watchdog().count(), 15000);
    setenv("WATCHDOG_USEC", "soon", 1);
    EXPECT_EQ(supervisor_watchdog().count(), 0);
}

TEST_F(RelaySupervisor, HandsOverTheFirstSocketOfATypeThatIsMeantForThisProcess) {
    const int before[] = {dup(3), dup(4)}; // what the test's own caller has there
    const auto hand_over = [](int as, int type) {
        const int fd = socket(AF_UNIX, type, 0);
        if (fd != as) {
            dup2(fd, as);
            close(fd);
        }
    };
    hand_over(3, SOCK_DGRAM);
    hand_over(4, SOCK_STREAM);
    setenv("LISTEN_FDS", "2", 1);
    setenv("LISTEN_PID", "1", 1);
    EXPECT_EQ(supervisor_socket(SOCK_DGRAM), -1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(supervisor_socket(SOCK_DGRAM), 3);
    EXPECT_EQ(supervisor_socket(SOCK_STREAM), 4);
    EXPECT_EQ(supervisor_socket(SOCK_SEQPACKET), -1);
    setenv("LISTEN_FDS", "1", 1);
    EXPECT_EQ(supervisor_socket(SOCK_STREAM), -1);
    for (int i = 0; i < 2; ++i) {
        close(3 + i);
        if (before[i] >= 0) {
            dup2(before[i], 3 + i);
            close(before[i]);
        }
    }
}

} // namespace
