#include "system/supervisor.h"

#include "support/private_dir.h"
#include "support/wait.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

struct RelaySupervisor : testing::Test {
    ~RelaySupervisor() override {
        for (const char* name :
             {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "LISTEN_PID", "LISTEN_FDS"}) {
            unsetenv(name);
        }
    }

    // A socket of this name, '@' for an abstract one, that is the supervisor's now.
    static int open_supervisor(const std::string& name) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        address.sun_path[0] = name[0] == '@' ? '\0' : name[0];
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const auto length = static_cast<socklen_t>(sizeof(sa_family_t) + name.size());
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), length), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        return fd;
    }
    // The next word that it was told, "nothing" when there is none.
    static std::string next(int fd) {
        char text[64] = {};
        const ssize_t size = recv(fd, text, sizeof text, 0);
        return size < 0 ? "nothing" : std::string(text, static_cast<size_t>(size));
    }
    // What it is told through a socket of this name.
    static std::string told(const std::string& name, const char* state) {
        const int fd = open_supervisor(name);
        supervisor_tell(state);
        const std::string word = next(fd);
        close(fd);
        return word;
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

// Sends until no word finds room any more.
void fill(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    while (sendto(fd, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 1) {
    }
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
}

bool is_asleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string number, name, state;
    file >> number >> name >> state;
    return state == "S";
}

TEST_F(RelaySupervisor, WaitsForRoomWhereAWaitIsGivenAndLosesTheWordElse) {
    const std::string path = (directory.path / "notify").string();
    const int fd = open_supervisor(path);
    fill(path);
    supervisor_tell("WATCHDOG=1");
    std::atomic<pid_t> teller = 0;
    std::thread thread([&] {
        teller = gettid();
        supervisor_tell("READY=1", kWaitLimit);
    });
    EXPECT_TRUE(wait_until([&] { return teller > 0 && is_asleep(teller); }));
    std::string word;
    EXPECT_TRUE(wait_until([&] {
        while ((word = next(fd)) == "x") {
        }
        return word != "nothing";
    }));
    EXPECT_EQ(word, "READY=1");
    thread.join();
    close(fd);
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
