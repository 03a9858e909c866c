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
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;
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
    std::signal(SIGCHLD, SIG_DFL); // ignored, the child's end would not be told
}

// Runs in the child: never returns.
[[noreturn]] void become_program(const RunOptions& options, const std::string& directory,
                                 const sigset_t& mask) {
    prctl(PR_SET_PDEATHSIG, SIGTERM); // a board that is killed leaves no program behind
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
    std::printf("debug outlet over TCP:  %s:%s, once 'tavorctl debug tcp' has opened it\n",
                launch_setting(directory, "debug socket ip=", "192.168.1.1").c_str(),
                launch_setting(directory, "debug socket port=", "7005").c_str());
    std::fflush(stdout);
}

std::string apply_faults(Board& board, const RunOptions& options) {
    for (const auto& [name, value] : options.faults) {
        std::string error = board_fault(board, name, value);
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

void start_program(BoardServer& server, const RunOptions& options, const std::string& directory,
                   const sigset_t& mask) {
    server.child = fork();
    if (server.child == 0) {
        become_program(options, directory, mask);
    }
    if (server.child < 0) {
        server.quit = true;
        server.status = complain(std::string("can't start a process: ") + std::strerror(errno));
    }
}

// From here on the directory is this board's.
int serve(BoardServer& server, const RunOptions& options, const std::string& directory,
          const sigset_t& mask) {
    const std::string problem = launch_configure(options, directory);
    if (!problem.empty()) {
        return complain(problem);
    }
    launch_remove_queues(directory); // of a board that was killed
    tell_ready(options, directory);
    if (!options.program.empty()) {
        start_program(server, options, directory, mask);
    }
    return server_run(server);
}

int run_in(const RunOptions& options, const std::string& directory) {
    sigset_t mask;
    block_signals(&mask);
    const auto board = std::make_unique<Board>();
    board_init(*board, options.board);
    std::string problem = apply_faults(*board, options);
    if (!problem.empty()) {
        return complain(problem);
    }
    BoardServer server;
    problem = server_open(server, *board, directory);
    if (!problem.empty()) {
        server_close(server);
        return complain(problem);
    }
    const int status = serve(server, options, directory, mask);
    launch_remove_queues(directory);
    server_close(server);
    return status;
}

} // namespace

int board_run(const RunOptions& options) {
    std::string directory;
    const std::string problem = launch_directory(options.directory, &directory);
    if (!problem.empty()) {
        complain(problem);
        return options.directory.empty() ? kFailed : kUsageError;
    }
    const int status = run_in(options, directory);
    if (options.directory.empty() && !options.keep) {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
    return status;
}
