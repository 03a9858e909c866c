#include "support/client_tool.h"

#include "support/wait.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kLimitMs = 60000;

void read_into(int& end, short events, std::string& text) {
    if (events == 0) {
        return;
    }
    std::array<char, 4096> bytes = {};
    const ssize_t length = read(end, bytes.data(), bytes.size());
    if (length > 0) {
        text.append(bytes.data(), static_cast<size_t>(length));
        return;
    }
    close(end);
    end = -1;
}

} // namespace

Tool::Tool(std::vector<std::string> arguments, bool close_output) {
    int out_pipe[2] = {-1, -1};
    int err_pipe[2] = {-1, -1};
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
    if (close_output) {
        posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
    }
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out_pipe[1]);
    close(err_pipe[1]);
    out_end = out_pipe[0];
    err_end = err_pipe[0];
    if (error != 0) {
        throw std::runtime_error("cannot run " + arguments.front());
    }
}

Tool::~Tool() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close_out();
    if (err_end >= 0) {
        close(err_end);
    }
}

bool Tool::read_some() {
    pollfd waits[2] = {{out_end, POLLIN, 0}, {err_end, POLLIN, 0}};
    if ((out_end < 0 && err_end < 0) || poll(waits, 2, kLimitMs) <= 0) {
        return false;
    }
    read_into(out_end, waits[0].revents, out);
    read_into(err_end, waits[1].revents, err);
    return true;
}

bool Tool::wait_text(const std::string& where, const std::string& text) {
    while (where.find(text) == std::string::npos) {
        if (!read_some()) {
            return false;
        }
    }
    return true;
}

bool Tool::wait_out(const std::string& text) {
    return wait_text(out, text);
}

bool Tool::wait_err(const std::string& text) {
    return wait_text(err, text);
}

void Tool::close_out() {
    if (out_end >= 0) {
        close(out_end);
        out_end = -1;
    }
}

void Tool::signal(int number) const {
    kill(pid, number);
}

bool Tool::wait_unread(size_t bytes) const {
    return wait_until([&] {
        int waiting = 0;
        return ioctl(out_end, FIONREAD, &waiting) == 0 && static_cast<size_t>(waiting) >= bytes;
    });
}

void Tool::shrink_out() const {
    fcntl(out_end, F_SETPIPE_SZ, 1); // a page
}

bool Tool::wait_gone() const {
    return wait_until([&] {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == pid;
    });
}

bool Tool::wait_asleep() const {
    return wait_until([&] {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::string text;
        std::getline(file, text);
        const size_t name_end = text.rfind(") ");
        return name_end != std::string::npos && text[name_end + 2] == 'S';
    });
}

int Tool::end() {
    while (read_some()) {
    }
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
