#include "client/download.h"

#include "client/download_check.h"
#include "client/download_log.h"
#include "client/download_view.h"
#include "client/log_source.h"
#include "client/place.h"
#include "client/print.h"
#include "client/relay_right.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr double kDownloadLimitS = 20.0 * 60;
constexpr double kLookS = 0.2;    // between two looks at the log
constexpr double kSettleS = 1;    // that the log may lag behind the answer
constexpr double kProbeS = 1;     // between two looks for the daemon
constexpr double kNoAnswerS = 3;  // after the log told the end; no answer by then: another client got it
constexpr double kJsonEveryS = 1; // within one step
constexpr size_t kUsualWidth = 80;
constexpr char kClearLine[] = "\r\033[K";

// A download under way.
struct Run {
    Session& session;
    DownloadPlan plan = {};
    LogSource log = {};
    DownloadProgress progress = {};
    bool told_others = false; // that it waits behind another download
    bool terminal = false;
    bool drawn = false;                        // a bar stands on the terminal
    std::string step = download_view_step({}); // shown last
    uint64_t told_done = 0;
    Clock::time_point begin = Clock::now();
    Clock::time_point step_begin = Clock::now();
    Clock::time_point write_begin = {};
    std::optional<double> write_s = {}; // how long all images took, once they are written
    Clock::time_point told_at = {};
    Connection behind = {}; // the daemon's own socket, also where the request went to a relay
    Presence daemon = Presence::kSame;
    bool relay_gone = false; // and the daemon is there
    Clock::time_point probed_at = Clock::now();
};

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

DownloadTimes times_of(const Run& run) {
    return {seconds_since(run.begin), seconds_since(run.step_begin)};
}

std::optional<uint64_t> size_of_file(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(status.st_size);
}

size_t terminal_width() {
    winsize size = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return (known ? size.ws_col : kUsualWidth) - 1;
}

void open_log(Run& run) {
    const std::string& path = run.session.options.log;
    if (path.empty() && !log_source_journal_is_readable()) {
        session_note(
            std::string("the daemon's log can't be read, so only the time is shown; for the steps, and "
                        "the cause of a failure, ") +
            kLogSourceRights + ", or name the log's file with --log");
    } else if (path.empty()) {
        log_source_open_journal(run.log);
    } else if (!log_source_open_file(run.log, path)) {
        session_note("cannot read the log " + print_safe(path) + ": " + strerror(errno) +
                     "; only the time is shown");
    }
}

void clear_bar(Run& run) {
    if (run.drawn) {
        fputs(kClearLine, stderr);
        run.drawn = false;
    }
}

void draw_bar(Run& run) {
    const std::string text = download_view_bar(run.progress, times_of(run), terminal_width());
    fprintf(stderr, "%s%s", kClearLine, text.c_str());
    run.drawn = true;
}

// Notes when the writing of the images begins and ends.
void time_write(Run& run) {
    const DownloadPhase phase = run.progress.phase;
    if (phase == DownloadPhase::kWrite && run.write_begin == Clock::time_point{}) {
        run.write_begin = Clock::now();
    } else if (phase == DownloadPhase::kCheck && !run.write_s && run.write_begin != Clock::time_point{}) {
        run.write_s = seconds_since(run.write_begin);
    }
}

// A new step is always told, what happens within one from time to time.
void tell_json(Run& run, bool new_step) {
    const bool due = seconds_since(run.told_at) >= kJsonEveryS && run.progress.done != run.told_done;
    if (run.progress.begun && (new_step || due)) {
        run.told_at = Clock::now();
        run.told_done = run.progress.done;
        session_emit(run.session, download_view_json(run.progress, times_of(run)));
    }
}

void show(Run& run) {
    const std::string step = download_view_step(run.progress);
    const bool new_step = step != run.step;
    if (new_step) {
        run.step = step;
        run.step_begin = Clock::now();
        time_write(run);
    }
    if (run.session.options.json) {
        tell_json(run, new_step);
    } else if (run.terminal) {
        draw_bar(run);
    } else if (new_step && !download_log_ended(run.progress)) {
        session_note(step); // of the end, the answer tells
    }
}

void tell_others(Run& run) {
    if (run.progress.others && !run.progress.begun && !run.told_others) {
        run.told_others = true;
        clear_bar(run);
        session_note("another client's download is under way; this one begins after it");
    }
}

// Shows every step that has begun since the last look.
void look(Run& run) {
    log_source_read(run.log, [&](std::string_view line) {
        const bool own = download_log_line(run.progress, line, size_of_file);
        if (own && download_view_step(run.progress) != run.step) {
            show(run);
        }
    });
    tell_others(run);
    show(run);
}

void settle(Run& run) {
    const Clock::time_point end = deadline_in(kSettleS);
    look(run);
    while (run.log.fd >= 0 && !download_log_ended(run.progress) && Clock::now() < end) {
        const timespec pause = {0, 20'000'000};
        nanosleep(&pause, nullptr);
        look(run);
    }
}

bool answer_is_lost(const Run& run) {
    return download_log_ended(run.progress) && seconds_since(run.step_begin) > kNoAnswerS;
}

// The daemon's own socket first: a relay goes on without it.
void look_for_daemon(Run& run) {
    run.daemon = connection_presence(run.behind);
    run.relay_gone = run.daemon == Presence::kSame && run.behind.path != run.session.connection.path &&
                     connection_presence(run.session.connection) != Presence::kSame;
    run.daemon = run.relay_gone ? Presence::kGone : run.daemon;
}

bool daemon_is_gone(Run& run) {
    if (seconds_since(run.probed_at) >= kProbeS) {
        run.probed_at = Clock::now();
        look_for_daemon(run);
    }
    return run.daemon != Presence::kSame;
}

// Whether the answer is that of this tool's own download. The daemon answers the client of the latest
// request, so the answer to another client's download comes here too when that one ends after this request
// was sent. The daemon logs the start and end of a download before it answers it, so the log decides: an end
// must agree with the answer, and an answer without an end is ours only when the log can't be read or had
// told our start before the answer came (begun).
bool is_own(Run& run, const Record& answer, bool begun) {
    settle(run);
    if (download_log_ended(run.progress)) {
        return record_ok(answer) == (run.progress.phase == DownloadPhase::kDone);
    }
    const bool log_is_silent = !run.progress.begun && !run.progress.others;
    return log_is_silent || begun;
}

// Ends when the daemon is gone, after one more look for what it had sent before.
Outcome wait_for_answer(Run& run, Clock::time_point deadline, std::optional<Record>& answer) {
    const Visitor visit = [&](const Record& record) {
        const bool is_answer = record.kind == RecordKind::kResult && record.code == TAVOR_CODE_DOWNLOAD;
        if (is_answer) {
            answer = record;
        }
        return !is_answer;
    };
    Outcome outcome = Outcome::kTimeout;
    bool gone = false;
    while (outcome == Outcome::kTimeout && Clock::now() < deadline && !answer_is_lost(run) && !gone) {
        gone = daemon_is_gone(run);
        const bool begun = run.progress.begun;
        look(run);
        outcome = exchange_collect(run.session.connection, std::min(deadline, deadline_in(kLookS)), visit);
        if (answer && !is_own(run, *answer, begun)) {
            answer.reset();
            outcome = Outcome::kTimeout;
        }
    }
    return outcome;
}

std::string failure_text(const Run& run) {
    if (const std::string hint = relay_right_hint(run.session.options.socket);
        !run.progress.begun && !hint.empty()) {
        return "no firmware was written: " + hint;
    }
    if (run.progress.error.empty()) {
        return "the firmware could not be written: the daemon answered failure; check 'DA path=' and 'image path=' "
               "and see 'journalctl --namespace=tavor'";
    }
    return "the firmware could not be written: " + download_view_failure(run.progress);
}

// What was written: as the log tells, or else as the look at the files has told.
DownloadSummary summary_of(const Run& run) {
    const DownloadProgress& progress = run.progress;
    DownloadSummary summary = {run.plan.images, std::nullopt, seconds_since(run.begin), run.write_s, {}};
    if (run.plan.images > 0) {
        summary.bytes = run.plan.bytes;
    }
    if (progress.images > 0) {
        summary.images = progress.images;
        summary.bytes = 0;
        for (const DownloadImage& image : progress.list) {
            const auto size = size_of_file(image.path);
            summary.bytes = summary.bytes && size ? std::optional(*summary.bytes + *size) : std::nullopt;
        }
    }
    if (progress.flash_size > 0) {
        summary.flash = FlashRange{progress.flash_begin, progress.flash_size};
    }
    return summary;
}

int report_good(Run& run, const Record& answer) {
    const DownloadSummary summary = summary_of(run);
    if (run.session.options.json) {
        session_emit(run.session, download_view_summary_json(summary));
    }
    const int status = session_report(run.session, answer, "");
    if (!run.session.options.json && summary.images > 0) {
        session_emit(run.session, download_view_summary(summary));
    }
    return status;
}

int report(Run& run, const Record& answer) {
    clear_bar(run);
    if (record_ok(answer)) {
        return report_good(run, answer);
    }
    if (run.session.options.json && !run.progress.error.empty()) {
        session_emit(run.session, download_view_failure_json(run.progress));
    }
    return session_report(run.session, answer, failure_text(run));
}

// Another client's request has taken the answer, or the daemon ended before it: the log alone tells the
// result.
int report_from_log(Run& run) {
    clear_bar(run);
    session_note(run.daemon == Presence::kSame
                     ? "the answer went to another client; the daemon's log tells how it ended"
                     : "the daemon ended before its answer; its log tells how the download ended");
    Record answer = {};
    answer.kind = RecordKind::kResult;
    answer.code = TAVOR_CODE_DOWNLOAD;
    answer.value = run.progress.phase == DownloadPhase::kDone ? 0 : TAVOR_VALUE_FAILED;
    return report(run, answer);
}

int report_gone(const Run& run) {
    const std::string at = print_safe(run.behind.path);
    if (run.relay_gone) {
        return session_fail(
            run.session, kExitNoDaemon,
            "the relay at " + print_safe(run.session.connection.path) +
                " ended in mid-download; the daemon at " + at +
                " goes on: leave the device on until it is done, see 'journalctl --namespace=tavor'");
    }
    if (run.daemon == Presence::kRestarted) {
        return session_fail(run.session, kExitNoDaemon,
                            "the daemon at " + at + " was restarted in mid-download; download again");
    }
    const std::string start =
        run.behind.path == TAVOR_SOCKET_PATH ? "start it with 'systemctl start tavor'" : "start it";
    return session_fail(run.session, kExitNoDaemon,
                        "the daemon at " + at + " ended in mid-download; " + start + " and download again");
}

int report_interrupted(Run& run) {
    session_note(
        "the daemon goes on writing firmware; leave the device on until it is done: see 'journalctl --namespace=tavor'");
    return session_end_status(run.session, Outcome::kInterrupted, 0);
}

int report_end(Run& run, Outcome outcome, double limit_s) {
    clear_bar(run);
    if (outcome == Outcome::kInterrupted) {
        return report_interrupted(run);
    }
    if (outcome == Outcome::kTimeout && download_log_ended(run.progress)) {
        return report_from_log(run);
    }
    if (outcome == Outcome::kTimeout && run.daemon != Presence::kSame) {
        return report_gone(run);
    }
    return session_end_status(run.session, outcome, limit_s);
}

// Whether the failure is a relay's word for a daemon that has ended.
bool relay_answers_for_daemon(Run& run, const Record& answer) {
    if (record_ok(answer) || download_log_ended(run.progress)) {
        return false;
    }
    look_for_daemon(run);
    return run.daemon != Presence::kSame;
}

} // namespace

// The request is sent once only: firmware is never written twice.
int download_run(Session& session) {
    Run run = {.session = session};
    run.terminal = isatty(STDERR_FILENO) != 0;
    if (const auto status = download_check_before(session, run.plan)) {
        return *status;
    }
    open_log(run);
    connection_note(run.behind, place_daemon_socket(session.options.socket));
    const double limit_s = session.options.timeout_s.value_or(kDownloadLimitS);
    const Clock::time_point deadline = deadline_in(limit_s);
    if (!connection_send(session.connection, TAVOR_REQUEST_DOWNLOAD, "", deadline)) {
        const bool interrupted = session.connection.error.empty();
        return session_end_status(session, interrupted ? Outcome::kInterrupted : Outcome::kUnreachable,
                                  limit_s);
    }
    std::optional<Record> answer;
    const Outcome outcome = wait_for_answer(run, deadline, answer);
    if (answer && relay_answers_for_daemon(run, *answer)) {
        return report_end(run, Outcome::kTimeout, limit_s);
    }
    return answer ? report(run, *answer) : report_end(run, outcome, limit_s);
}
