#include "server/run.h"

#include "server/launch.h"
#include "server/server.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace {

constexpr int kFailed = 1;
constexpr int kNotStarted = 127;
constexpr mode_t kLogMode = 0644;

int complain(const std::string& problem) {
    std::fprintf(stderr, "tavor-board: %s\n", problem.c_str());
    return kFailed;
}

void block_signals(sigset_t* before) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, before);
}

// Runs in the child: never returns.
[[noreturn]] void become_program(const RunOptions& options, const std::string& directory,
                                 const sigset_t& mask) {
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    if (!options.log.empty()) {
        const int fd = open(options.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kLogMode);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) {
            complain("can't write " + options.log + ": " + std::strerror(errno));
            _exit(kNotStarted);
        }
    }
    complain(launch_replace(directory, options.program));
    _exit(kNotStarted);
}

void tell_ready(const RunOptions& options, const std::string& directory) {
    if (!options.program.empty()) {
        std::fprintf(stderr, "ready %s\n", directory.c_str()); // standard output belongs to the program
        return;
    }
    std::printf("ready %s\n", directory.c_str());
    std::printf("start a program on it:  tavor-board exec --dir %s -- PROGRAM\n", directory.c_str());
    std::printf("ask or change it:       tavor-board ctl --dir %s --help\n", directory.c_str());
    std::fflush(stdout);
}

std::string apply_faults(Board& board, const RunOptions& options) {
    for (const auto& [name, value] : options.faults) {
        const std::string error = board_fault(board, name, value);
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

void clean_up(const RunOptions& options, const std::string& directory) {
    launch_remove_queues(directory);
    if (options.directory.empty() && !options.keep) {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
}

int serve(const RunOptions& options, Board& board, const std::string& directory, const sigset_t& mask) {
    BoardServer server;
    const std::string problem = server_open(server, board, directory);
    if (!problem.empty()) {
        return complain(problem);
    }
    tell_ready(options, directory);
    if (!options.program.empty()) {
        server.child = fork();
        if (server.child == 0) {
            become_program(options, directory, mask);
        }
        if (server.child < 0) {
            server.quit = true;
            server.status = complain(std::string("can't start a process: ") + std::strerror(errno));
        }
    }
    const int status = server_run(server);
    server_close(server, directory);
    clean_up(options, directory);
    return status;
}

} // namespace

int board_run(const RunOptions& options) {
    std::string directory;
    const std::string problem = launch_prepare(options, &directory);
    if (!problem.empty()) {
        return complain(problem);
    }
    sigset_t mask;
    block_signals(&mask);
    const auto board = std::make_unique<Board>();
    board_init(*board, options.board);
    const std::string fault = apply_faults(*board, options);
    if (!fault.empty()) {
        clean_up(options, directory);
        return complain(fault);
    }
    return serve(options, *board, directory, mask);
}
