#include "client/tool_output.h"

#include "base/descriptor_guard.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kOutputMax = size_t{2} << 20;

// The tool holds its own ending signals back; the program must not.
pid_t start(std::vector<std::string>& arguments, int out) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const char* path = getenv("PATH");
    std::string only_path = std::string("PATH=") + (path != nullptr ? path : "/usr/bin:/bin");
    std::array<char*, 2> environment = {only_path.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environment.data()) != 0) {
        pid = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Reads to the end of the output. False when that did not come in time.
bool read_all(int fd, std::chrono::milliseconds limit, std::string& text) {
    using SteadyClock = std::chrono::steady_clock;
    const auto end = SteadyClock::now() + limit;
    std::array<char, 4096> bytes = {};
    while (text.size() < kOutputMax) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - SteadyClock::now());
        pollfd readable = {fd, POLLIN, 0};
        if (left.count() < 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        const ssize_t count = read(fd, bytes.data(), bytes.size());
        if (count <= 0) {
            return count == 0;
        }
        text.append(bytes.data(), static_cast<size_t>(count));
    }
    return true;
}

} // namespace

ToolOutput tool_output(std::vector<std::string> arguments, std::chrono::milliseconds limit) {
    ToolOutput output;
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return output;
    }
    const DescriptorGuard out(ends[0]);
    const pid_t pid = start(arguments, ends[1]);
    close(ends[1]);
    if (pid < 0) {
        return output;
    }
    output.started = true;
    output.whole = read_all(out.fd, limit, output.text);
    kill(pid, SIGKILL); // one that closed its output and goes on is waited for no longer
    waitpid(pid, nullptr, 0);
    return output;
}
