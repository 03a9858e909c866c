#include "server/run.h"

#include "server/clock_file.h"
#include "server/flash_file.h"
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
constexpr int64_t kNsPerUs = 1000;

int complain(const std::string& problem) {
    fprintf(stderr, "tavor-board: %s\n", problem.c_str());
    return kFailed;
}

void block_signals(sigset_t* before) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, before);
    signal(SIGCHLD, SIG_DFL); // ignored, the child's end would not be told
}

// Runs in the child: never returns.
[[noreturn]] void become_program(const RunOptions& options, const std::string& directory, int log,
                                 const sigset_t& mask) {
    prctl(PR_SET_PDEATHSIG, SIGTERM); // a board that is killed leaves no program behind
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    if (log >= 0) {
        dup2(log, STDOUT_FILENO);
    }
    complain(options.kernel_device.empty() ? launch_replace(directory, options.program)
                                           : launch_replace_plainly(options.program));
    _exit(kNotStarted);
}

// Tells how the board is reached. Returns what went wrong with that, else empty: without its lines on
// standard output nobody knows a board that stands alone.
std::string tell_ready(const RunOptions& options, const std::string& directory) {
    const bool alone = options.program.empty();
    FILE* const out = alone ? stdout : stderr; // standard output belongs to the program
    fprintf(out, "ready %s\n", directory.c_str());
    if (!options.kernel_device.empty()) {
        fprintf(out, "reached by the kernel:  %s/etc/default/tavor must stand at /etc/default/tavor\n",
                directory.c_str());
    } else if (alone) {
        fprintf(out, "start a program on it:  tavor-board exec --dir %s -- PROGRAM\n", directory.c_str());
    }
    if (alone) {
        fprintf(out, "ask or change it:       tavor-board ctl --dir %s --help\n", directory.c_str());
    }
    fprintf(out, "debug outlet over TCP:  %s:%s, once 'tavorctl debug tcp' has opened it\n",
            launch_setting(directory, "debug socket ip=", "192.168.1.1").c_str(),
            launch_setting(directory, "debug socket port=", "7005").c_str());
    if (options.assistance) {
        fprintf(out, "assistance server:      %s\n", launch_setting(directory, "XOD host=", "").c_str());
    }
    const bool told = fflush(out) == 0 && ferror(out) == 0;
    return told || !alone ? "" : std::string("can't write where the board is reached: ") + strerror(errno);
}

std::string apply_faults(const ControlTarget& target, const RunOptions& options) {
    for (const auto& [name, value] : options.faults) {
        std::string error = control_fault(target, name, value);
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

// What makes up a board while it runs.
struct Running {
    BoardServer server;
    ClockFile clock;
    AssistServer assist;
    Board board;
    int log = -1; // for the program's output, -1: passed through

    ~Running() {
        server_close(server);
        assist_close(assist);
        clock_file_close(clock);
        if (log >= 0) {
            close(log);
        }
    }
};

void start_program(Running& running, const RunOptions& options, const std::string& directory,
                   const sigset_t& mask) {
    BoardServer& server = running.server;
    server.child = fork();
    if (server.child == 0) {
        become_program(options, directory, running.log, mask);
    }
    if (server.child < 0) {
        server.target.quit = true;
        server.status = complain(std::string("can't start a process: ") + strerror(errno));
    }
}

// From here on the directory is this board's.
int serve(Running& running, const RunOptions& options, const std::string& directory, const sigset_t& mask) {
    BoardServer& server = running.server;
    AssistServer* assist = server.target.assist;
    std::string problem =
        launch_configure(options, directory, assist == nullptr ? "" : assist_address(*assist));
    if (!problem.empty()) {
        return complain(problem);
    }
    launch_remove_queues(directory); // of a board that was killed
    problem = tell_ready(options, directory);
    if (!problem.empty()) {
        return complain(problem);
    }
    if (!options.program.empty()) {
        start_program(running, options, directory, mask);
    }
    problem = assist == nullptr ? "" : assist_start(*assist); // threads: no process is made after it
    if (!problem.empty()) {
        server.target.quit = true;
        server.status = complain(problem);
    }
    return server_run(server);
}

// The clock that the options ask for.
void set_clock(BoardClock& clock, const RunOptions& options) {
    int64_t utc = 0;
    if (clock_parse(options.time, &utc)) {
        board_clock_set_utc(clock, clock_host_time, utc);
    }
    if (options.speed != 1) {
        board_clock_set_speed(clock, clock_host_time, options.speed);
    }
}

// Puts the chip on the board's clock.
void make_board(Board& board, const BoardClock& clock, BoardOptions options) {
    const BoardTime zero = board_clock_now(clock, clock_host_time);
    options.chip.utc_at_zero_us = static_cast<uint64_t>(zero.utc_ns / kNsPerUs);
    options.clock_us = [&clock, zero] {
        const BoardTime now = board_clock_now(clock, clock_host_time);
        return static_cast<uint64_t>((now.monotonic_ns - zero.monotonic_ns) / kNsPerUs);
    };
    board_init(board, std::move(options));
}

// Makes the board in its directory; no other runs there when the server has opened. Returns what went wrong.
std::string open_board(Running& running, const RunOptions& options, const std::string& directory) {
    std::string problem = server_open(running.server, directory);
    if (problem.empty()) {
        problem = clock_file_open(running.clock, directory);
    }
    if (!problem.empty()) {
        return problem;
    }
    set_clock(*running.clock.clock, options);
    make_board(running.board, *running.clock.clock, options.board);
    running.server.target = {&running.board, running.clock.clock, nullptr, false};
    problem = flash_file_load(running.board, directory);
    if (problem.empty() && !options.kernel_device.empty()) {
        problem = server_open_kernel(running.server, options.kernel_device);
    }
    if (problem.empty() && options.assistance) {
        problem = assist_open(running.assist, *running.clock.clock, options.board.chip.seed);
        running.server.target.assist = &running.assist;
    }
    return problem.empty() ? apply_faults(running.server.target, options) : problem;
}

// Before the board is ready: a program without its output would have run for nothing. A pipe without a reader
// is refused.
std::string open_log(Running& running, const std::string& path) {
    if (path.empty()) {
        return "";
    }
    running.log = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, kLogMode);
    if (running.log < 0) {
        return "can't write " + path + ": " + (errno == ENXIO ? "nobody reads this pipe" : strerror(errno));
    }
    fcntl(running.log, F_SETFL, O_APPEND); // the program waits for a slow reader
    return "";
}

int run_in(const RunOptions& options, const std::string& directory) {
    const auto running = std::make_unique<Running>();
    std::string problem = open_log(*running, options.log);
    if (!problem.empty()) {
        complain(problem);
        return kNotStarted;
    }
    sigset_t mask;
    block_signals(&mask);
    problem = open_board(*running, options, directory);
    if (!problem.empty()) {
        return complain(problem);
    }
    const int status = serve(*running, options, directory, mask);
    launch_remove_queues(directory);
    return status;
}

} // namespace

int board_run(const RunOptions& options) {
    std::string directory;
    std::string problem = options.kernel_device.empty() ? launch_library_problem() : "";
    if (problem.empty() && !options.program.empty()) {
        problem = launch_program_problem(options.program[0]);
    }
    if (!problem.empty()) {
        complain(problem);
        return kNotStarted;
    }
    problem = launch_directory(options.directory, &directory);
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
