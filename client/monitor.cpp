#include "client/monitor.h"

#include "base/non_copyable.h"
#include "client/follow.h"
#include "client/interrupt.h"
#include "client/monitor_view.h"
#include "client/print.h"
#include "client/screen.h"

#include <array>
#include <csignal>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr double kOnceS = 10; // for a frame with everything in it
constexpr int kFixes = 3;     // with or without a position, so that one moment is whole
constexpr std::chrono::seconds kSkyWait{2};
constexpr double kSendS = 0.5; // that a daemon with a full queue may hold up the screen
constexpr std::chrono::milliseconds kFrameEvery{200};
constexpr int kLateDatagrams = 200; // in a row, before keys have their turn

// A monitor on a terminal.
struct Run {
    Session& session;
    Monitor monitor = {};
    bool quit = false;
    int status = kExitSuccess;
    Clock::time_point shown = {};

    explicit Run(Session& of) : session(of) {
        monitor.begin = monitor.listening = Clock::now();
    }
};

struct OpenScreen : private NonCopyable {
    OpenScreen() = default;
    ~OpenScreen() {
        screen_close();
    }
};

// The answers come as any other output does.
void request(Run& run, tavor_request_type type, const std::string& text) {
    if (!connection_send(run.session.connection, type, text, deadline_in(kSendS)) &&
        !run.session.connection.error.empty()) {
        monitor_line(run.monitor, run.session.connection.error);
    }
}

void take_keys(Run& run) {
    for (int key = screen_key(); key >= 0 && !run.quit; key = screen_key()) {
        const MonitorAction action = monitor_key(run.monitor, key);
        run.quit = action.quit;
        if (action.request) {
            request(run, *action.request, action.text);
        }
    }
}

void take_datagrams(Run& run) {
    for (int count = 0; count < kLateDatagrams; ++count) {
        tavor_response response = {};
        const Received received =
            connection_receive(run.session.connection, response, Clock::time_point::min());
        if (received == Received::kFailed) {
            monitor_line(run.monitor, run.session.connection.error);
        }
        if (received != Received::kResponse && received != Received::kMalformed) {
            return;
        }
        const auto now = Clock::now();
        monitor_hear(run.monitor, now);
        if (received == Received::kResponse) {
            monitor_take(run.monitor, record_parse(response), now);
        }
    }
}

void break_silence(Run& run) {
    if (!monitor_breaks_silence(run.monitor, Clock::now())) {
        return;
    }
    const Retaken retaken = connection_retake(run.session.connection, deadline_in(kSendS));
    monitor_line(run.monitor,
                 retaken == Retaken::kFailed ? run.session.connection.error
                 : retaken == Retaken::kNewDaemon
                     ? "the daemon was restarted: started positioning again"
                     : "no output: positioning is off (s starts it), the chip is silent, or another "
                       "client took it; taking it back");
}

void show(Run& run) {
    const auto now = Clock::now();
    if (now - run.shown >= kFrameEvery) {
        run.shown = now;
        screen_show(monitor_draw(run.monitor, screen_width(), screen_height(), now));
    }
}

// One wait for a key, a datagram, a signal, or the next frame. A terminal that is gone ends it.
void wait_for_input(Run& run) {
    const Connection& connection = run.session.connection;
    std::array<pollfd, 3> waits = {
        {{STDIN_FILENO, POLLIN, 0}, {connection.socket, POLLIN, 0}, {connection.interrupt, POLLIN, 0}}};
    poll(waits.data(), waits.size(), static_cast<int>(kFrameEvery.count()));
    if (waits[2].revents != 0) {
        const int signal = interrupt_take(connection.interrupt);
        run.quit = true;
        run.status = signal == SIGINT ? static_cast<int>(kExitSuccess) : kExitSignal + signal;
    }
    run.quit = run.quit || (waits[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    if (waits[1].revents != 0) {
        take_datagrams(run);
    }
}

int run_screen(Session& session) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        return session_fail(session, kExitUsage,
                            "monitor needs a terminal; --once prints one frame without one");
    }
    const std::string missing = screen_open(session.connection.socket);
    if (!missing.empty()) {
        return session_fail(session, kExitFailed, missing);
    }
    Run run(session);
    const OpenScreen screen;
    request(run, TAVOR_REQUEST_START, "");
    while (!run.quit) {
        show(run);
        wait_for_input(run);
        take_keys(run);
        break_silence(run);
    }
    if (session.options.stop) {
        request(run, TAVOR_REQUEST_STOP, "");
    }
    return run.status;
}

// Whether all that comes again and again has come: whole moments, and the sky, which chips tell once a
// second.
struct Moments {
    int fixes = 0;
    std::optional<Clock::time_point> first;
    bool are_whole(const Record& record) {
        Fix fix;
        const auto now = Clock::now();
        if (record.kind == RecordKind::kNmea) {
            first = first.value_or(now);
            fixes += nmea_take(fix, record.text) == SentenceKind::kFix ? 1 : 0;
        }
        return fixes >= kFixes && now - *first >= kSkyWait;
    }
};

int run_once(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kOnceS);
    Monitor monitor;
    monitor.begin = Clock::now();
    Moments moments;
    const Followed followed =
        follow_start(session, limit_s, kMonitorSilenceS, deadline_in(limit_s), [&](const Record& record) {
            monitor_take(monitor, record, Clock::now());
            return !moments.are_whole(record) && !follow_is_failed_start(session, record);
        });
    if (session.start_failed) {
        return follow_start_failed(session);
    }
    if (followed.outcome != Outcome::kDone && (followed.outcome != Outcome::kTimeout || !followed.answered)) {
        return session_end_status(session, followed.outcome, limit_s);
    }
    session_emit(session, grid_print(monitor_draw(monitor, kMonitorWidth, kMonitorHeight, Clock::now())));
    if (!monitor.heard) {
        return session_fail(session, kExitSilentChip,
                            "nothing came from the chip within " + print_seconds(limit_s) + " s");
    }
    return session_output_status(session);
}

} // namespace

int monitor_run(Session& session) {
    return session.options.once ? run_once(session) : run_screen(session);
}
