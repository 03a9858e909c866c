// Which file is started to ask a daemon for its version. Starting it is the test's own here.
#include "client/daemon_probe.h"
#include "client/tool_output.h"

#include "support/private_dir.h"
#include "support/wait.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uid_t kStranger = 65534;

struct Started {
    bool any = false;
    std::array<int, 2> order = {-1, -1}; // a byte makes the holder of the lock execute another program
    pid_t holder = -1;
    struct stat file = {}; // what would have been executed, once the holder is another program
};

Started started;

struct stat file_at(const std::string& path) {
    struct stat file = {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
    return file;
}

bool is_same(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string exe_of(pid_t pid) {
    return "/proc/" + std::to_string(pid) + "/exe";
}

// Holds the lock of the place; a shell becomes another program at the order's byte.
pid_t hold_lock(const std::string& directory, const char* name, int order) {
    const pid_t child = fork();
    if (child == 0) {
        flock(open(directory.c_str(), O_RDONLY | O_DIRECTORY), LOCK_EX | LOCK_NB);
        dup2(order, STDIN_FILENO);
        execl("/bin/sh", name, "-c", "read go; exec sleep 600", nullptr);
        _exit(1);
    }
    return child;
}

void end(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

bool wait_for_program(pid_t pid, const std::string& program) {
    const struct stat wanted = file_at(program);
    return wait_until([&] {
        struct stat now = {};
        return stat(exe_of(pid).c_str(), &now) == 0 && is_same(now, wanted);
    });
}

} // namespace

// The holder becomes another program between the look at its executable and the start.
ToolOutput tool_output(std::vector<std::string> arguments, std::chrono::milliseconds) {
    started.any = true;
    if (started.holder > 0) {
        EXPECT_EQ(write(started.order[1], "\n", 1), 1);
        EXPECT_TRUE(wait_for_program(started.holder, "/bin/sleep"));
    }
    started.file = file_at(arguments.at(0));
    return {true, true, "tavor 9.8.7, for tests\n"};
}

TEST(ProbeVersion, FileThatWasJudgedIsTheOneThatIsStarted) {
    started = {};
    const PrivateDir directory;
    ASSERT_EQ(pipe2(started.order.data(), O_CLOEXEC), 0);
    started.holder = hold_lock(directory.path, "sh", started.order[0]);
    ASSERT_TRUE(wait_for_program(started.holder, "/bin/sh"));
    const DaemonProbe probe = daemon_probe(place_of(directory.path / "socket"));
    end(started.holder);
    close(started.order[0]);
    close(started.order[1]);
    EXPECT_EQ(probe.version, "9.8.7");
    EXPECT_TRUE(is_same(started.file, file_at("/bin/sh"))) << "another program was started";
}

TEST(ProbeVersion, WordThatAProcessWasStartedWithIsNoProgram) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a process of another user";
    }
    started = {};
    const PrivateDir directory;
    std::array<int, 2> order = {-1, -1};
    ASSERT_EQ(pipe2(order.data(), O_CLOEXEC), 0);
    const pid_t child = hold_lock(directory.path, "/bin/true", order[0]);
    EXPECT_TRUE(wait_for_program(child, "/bin/sh"));
    EXPECT_EQ(chmod(directory.path.c_str(), 0755), 0);
    const Place place = place_of(directory.path / "socket");
    ASSERT_EQ(seteuid(kStranger), 0);
    const DaemonProbe probe = daemon_probe(place);
    ASSERT_EQ(seteuid(0), 0);
    end(child);
    close(order[0]);
    close(order[1]);
    EXPECT_EQ(probe.pid, child);
    EXPECT_FALSE(started.any) << "the word that the process gave itself was started";
    EXPECT_EQ(probe.program, "");
    EXPECT_EQ(probe.version, "");
    EXPECT_EQ(probe.version_why, "its executable can't be seen; ask as root");
}
