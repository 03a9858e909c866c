#include "client/commands.h"

#include "client/exchange.h"
#include "client/interrupt.h"
#include "client/print.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr double kAnswerLimitS = 5;
constexpr double kPositionLimitS = 60;
constexpr double kDownloadLimitS = 20.0 * 60;
constexpr double kChipAnswerWaitS = 1;
constexpr double kAssistWaitS = 60;

// A request that is one question and one answer.
struct SimpleRow {
    Command command;
    tavor_request_type type;
    tavor_response_code code;
    // A debug outlet that failed to open is the current one all the same, and asking again then answers
    // success: a second answer would not mean the same. Firmware is never written twice.
    bool repeatable;
    std::string_view outlet; // debug only
    double limit_s;
    const char* failure;
};

constexpr SimpleRow kSimpleRows[] = {
    {Command::kStart, TAVOR_REQUEST_START, TAVOR_CODE_START, true, "", kAnswerLimitS,
     "positioning could not be started: the daemon answered failure; check the device settings in "
     "/etc/default/tavor/tavor.conf and see 'journalctl -u tavor'"},
    {Command::kStop, TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, true, "", kAnswerLimitS,
     "positioning could not be stopped: the daemon answered failure; see 'journalctl -u tavor'"},
    {Command::kSave, TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION, true, "", kAnswerLimitS,
     "the location could not be saved: the daemon answered failure; check that the place of 'NMEA file path=' is "
     "writable"},
    {Command::kDebug, TAVOR_REQUEST_DEBUG_OFF, TAVOR_CODE_DEBUG, true, "off", kAnswerLimitS,
     "the debug outlet could not be switched off: the daemon answered failure; see 'journalctl -u tavor'"},
    {Command::kDebug, TAVOR_REQUEST_DEBUG_FILE, TAVOR_CODE_DEBUG, false, "file", kAnswerLimitS,
     "the debug outlet could not be switched to the log file: the daemon answered failure; check that 'LOG path=' "
     "is writable"},
    {Command::kDebug, TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_CODE_DEBUG, false, "serial", kAnswerLimitS,
     "the debug outlet could not be switched to the serial line: the daemon answered failure; check 'debug port "
     "path='"},
    {Command::kDebug, TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG, false, "tcp", kAnswerLimitS,
     "the debug outlet could not be switched to TCP: the daemon answered failure; check 'debug socket ip=' and "
     "'debug socket port='"},
    {Command::kDownload, TAVOR_REQUEST_DOWNLOAD, TAVOR_CODE_DOWNLOAD, false, "", kDownloadLimitS,
     "the firmware could not be written: the daemon answered failure; check 'DA path=' and 'image path=' and see "
     "'journalctl -u tavor'"},
};

struct Session {
    const Options& options;
    Connection connection;
    int64_t lines = 0;         // of output written
    int output_error = 0;      // error number of the first failed write
    bool start_failed = false; // the daemon answered a start with failure
};

// How starting and following ended.
struct Followed {
    Outcome outcome;
    bool answered; // the daemon answered the start
};

const Visitor kSkip = [](const Record&) { return true; };

int fail(ExitStatus status, const std::string& text) {
    std::fprintf(stderr, "tavorctl: %s\n", text.c_str());
    return status;
}

void note(const std::string& text) {
    std::fprintf(stderr, "tavorctl: %s\n", text.c_str());
}

// Writes to standard output. False once that failed.
bool emit(Session& session, const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        session.output_error = session.output_error != 0 ? session.output_error : errno;
        return false;
    }
    ++session.lines;
    return true;
}

// A reader that has gone away is an ordinary end.
int output_status(const Session& session) {
    if (session.output_error == 0 || session.output_error == EPIPE) {
        return kExitSuccess;
    }
    return fail(kExitFailed, std::string("cannot write the output: ") + std::strerror(session.output_error) +
                                 "; free space or write elsewhere");
}

// Status of a wait that ended without what was waited for.
int end_status(Session& session, Outcome outcome, double limit_s) {
    switch (outcome) {
    case Outcome::kInterrupted:
        return kExitSignal + interrupt_take(session.connection.interrupt);
    case Outcome::kUnreachable:
        return fail(kExitSilence, session.connection.error);
    case Outcome::kTimeout:
        return fail(kExitSilence,
                    "no answer from the daemon at " + print_safe(session.connection.path) + " within " +
                        print_seconds(limit_s) +
                        " s; another client may have taken it: try again, or see 'journalctl -u tavor'");
    default:
        return output_status(session);
    }
}

int report_answer(Session& session, const Record& answer, const std::string& failure) {
    if (session.options.json) {
        emit(session, print_json(answer));
    } else if (record_ok(answer)) {
        emit(session, print_result(answer));
    }
    return record_ok(answer) ? output_status(session) : fail(kExitFailed, failure);
}

const SimpleRow& simple_row(const Options& options) {
    return *std::find_if(std::begin(kSimpleRows), std::end(kSimpleRows), [&](const SimpleRow& row) {
        return row.command == options.command && row.outlet == options.outlet;
    });
}

int run_simple(Session& session) {
    const SimpleRow& row = simple_row(session.options);
    const double limit_s = session.options.timeout_s.value_or(row.limit_s);
    const bool download = row.command == Command::kDownload;
    if (download && isatty(STDERR_FILENO) != 0) {
        note("writing firmware takes minutes; the answer comes at the end");
    }
    std::optional<Record> answer;
    const Outcome outcome =
        exchange_ask(session.connection, {row.type, row.code, "", limit_s, row.repeatable}, kSkip, answer);
    if (answer) {
        return report_answer(session, *answer, row.failure);
    }
    if (download && outcome == Outcome::kInterrupted) {
        note(
            "the daemon goes on writing firmware; leave the device on until 'journalctl -u tavor' says it is done");
    }
    return end_status(session, outcome, limit_s);
}

void tell_silence(double seconds, int count, bool restarted) {
    if (restarted) {
        note("the daemon was restarted: started positioning again");
    } else if (count == 1) {
        note("no output for " + print_seconds(std::max(1.0, std::round(seconds))) +
             " s: another client took it or the chip is silent; taking it back");
    } else if (count == 2) {
        note("still no output: positioning is stopped or the chip is silent; 'tavorctl start' starts it");
    }
}

// Starts positioning and gives the visitor everything that comes, the answer included.
Followed start_and_follow(Session& session, double answer_s, const Follow& follow, const Visitor& visit) {
    const Request start = {TAVOR_REQUEST_START, TAVOR_CODE_START, "", answer_s, true};
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(session.connection, start, visit, answer);
    if (!answer) {
        return {outcome, false};
    }
    if (!visit(*answer)) {
        return {Outcome::kDone, true};
    }
    return {exchange_follow(session.connection, follow, visit), true};
}

// Notes a failed start, also one of a later try; true when the record is one.
bool is_failed_start(Session& session, const Record& record) {
    const bool failed =
        record.kind == RecordKind::kResult && record.code == TAVOR_CODE_START && !record_ok(record);
    session.start_failed = session.start_failed || failed;
    return failed;
}

int start_failed_status() {
    return fail(kExitFailed, kSimpleRows[0].failure);
}

std::string watch_text(const Options& options, const Record& record) {
    if (options.json) {
        return print_json(record);
    }
    // A terminal is no place for the chip's bytes as they are.
    return options.raw && isatty(STDOUT_FILENO) == 0 ? print_raw(record) : print_line(record);
}

bool watch_record(Session& session, const Record& record) {
    const bool failed = is_failed_start(session, record);
    const bool shown = !session.options.raw || record.kind == RecordKind::kNmea;
    if (shown && !emit(session, watch_text(session.options, record))) {
        return false;
    }
    return !failed && (session.options.count == 0 || session.lines < session.options.count);
}

// Status of a watch that ended. Interrupting one that has no limit of its own is the ordinary way to end it.
int watch_status(Session& session, const Followed& followed, double answer_s) {
    if (session.start_failed) {
        return start_failed_status();
    }
    if (followed.outcome == Outcome::kTimeout && followed.answered) {
        return output_status(session);
    }
    const int status = end_status(session, followed.outcome, answer_s);
    const bool endless = session.options.count == 0 && session.options.duration_s.value_or(0) <= 0;
    return followed.outcome == Outcome::kInterrupted && endless ? output_status(session) : status;
}

int stop_at_end(Session& session, int status) {
    session.connection.output = -1; // a reader that has gone does not keep the chip on
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(
        session.connection, {TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, "", kAnswerLimitS, true}, kSkip, answer);
    if (!answer) {
        return end_status(session, outcome, kAnswerLimitS);
    }
    return record_ok(*answer) ? status : fail(kExitFailed, kSimpleRows[1].failure);
}

int run_watch(Session& session) {
    const Options& options = session.options;
    const double limit_s = options.timeout_s.value_or(kAnswerLimitS);
    const double duration_s = options.duration_s.value_or(0);
    const bool short_watch = duration_s > 0 && (limit_s <= 0 || duration_s < limit_s);
    const double answer_s = short_watch ? duration_s : limit_s;
    session.connection.output = STDOUT_FILENO;
    const Followed followed =
        start_and_follow(session, answer_s, {limit_s, deadline_in(duration_s), tell_silence},
                         [&](const Record& record) { return watch_record(session, record); });
    const int status = watch_status(session, followed, answer_s);
    const bool reachable = followed.outcome != Outcome::kUnreachable &&
                           (followed.answered || followed.outcome != Outcome::kTimeout);
    return options.stop && reachable ? stop_at_end(session, status) : status;
}

int run_position(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kPositionLimitS);
    const double answer_s = limit_s > 0 ? std::min(limit_s, kAnswerLimitS) : kAnswerLimitS;
    std::optional<Position> position;
    const Visitor visit = [&](const Record& record) {
        if (record.kind == RecordKind::kPosition) {
            position = record.position;
        }
        return !position && !is_failed_start(session, record);
    };
    const Followed followed =
        start_and_follow(session, answer_s, {kAnswerLimitS, deadline_in(limit_s), tell_silence}, visit);
    if (position) {
        emit(session, session.options.json ? print_position_json(*position) : print_position(*position));
        return output_status(session);
    }
    if (session.start_failed) {
        return start_failed_status();
    }
    if (followed.outcome == Outcome::kTimeout && followed.answered) {
        return fail(kExitSilence,
                    "no position within " + print_seconds(limit_s) +
                        " s: the chip has no fix yet; see that the antenna has a view of the sky, or "
                        "follow with 'tavorctl watch'");
    }
    return end_status(session, followed.outcome, answer_s);
}

int run_send(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kAnswerLimitS);
    int64_t answers = 0;
    const Visitor show = [&](const Record& record) {
        if (record.kind != RecordKind::kChip) {
            return true;
        }
        ++answers;
        return emit(session, session.options.json ? print_json(record) : print_chip(record));
    };
    const Request request = {TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, session.options.body, limit_s, false};
    std::optional<Record> answer;
    Outcome outcome = exchange_ask(session.connection, request, show, answer);
    if (!answer) {
        return end_status(session, outcome, limit_s);
    }
    if (session.options.json) {
        emit(session, print_json(*answer));
    }
    if (!record_ok(*answer)) {
        return fail(kExitFailed,
                    "the command could not be sent: the link to the chip is closed or fails; start "
                    "positioning with 'tavorctl start'");
    }
    const double wait_s = session.options.wait_s.value_or(kChipAnswerWaitS);
    if (wait_s > 0) {
        outcome = exchange_collect(session.connection, deadline_in(wait_s), show);
    }
    if (outcome == Outcome::kTimeout && answers == 0 && !session.options.json) {
        note("the chip answered nothing within " + print_seconds(wait_s) + " s; --wait waits longer");
    }
    return outcome == Outcome::kTimeout ? output_status(session) : end_status(session, outcome, wait_s);
}

// Waits for the result of the first download, for which the daemon takes its time.
int wait_for_assistance(Session& session, double wait_s) {
    std::optional<Record> result;
    const Outcome outcome =
        exchange_collect(session.connection, deadline_in(wait_s), [&](const Record& record) {
            if (record.kind == RecordKind::kResult && record.code == TAVOR_CODE_ASSIST_RESULT) {
                result = record;
            }
            return !result;
        });
    if (result) {
        return report_answer(
            session, *result,
            "assistance data could not be downloaded: the daemon answered failure and tries again "
            "later; check 'XOD host=' and the network");
    }
    if (outcome != Outcome::kTimeout) {
        return end_status(session, outcome, wait_s);
    }
    note("no download ended within " + print_seconds(wait_s) +
         " s: the stored data are fresh or the server is slow; the daemon goes on by itself");
    return output_status(session);
}

int run_assist(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kAnswerLimitS);
    // Not repeatable: a second request while a download runs would set up its schedule twice.
    const Request request = {TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST, "", limit_s, false};
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(session.connection, request, kSkip, answer);
    if (!answer) {
        return end_status(session, outcome, limit_s);
    }
    const int status =
        report_answer(session, *answer,
                      "the assistance download could not be started: the daemon answered failure; see "
                      "'journalctl -u tavor'");
    const double wait_s = session.options.wait_s.value_or(kAssistWaitS);
    return status == kExitSuccess && wait_s > 0 ? wait_for_assistance(session, wait_s) : status;
}

} // namespace

int commands_run(const Options& options, int interrupt) {
    Session session = {options, {}, 0, 0, false};
    session.connection.interrupt = interrupt;
    if (!connection_open(session.connection, options.socket)) {
        return fail(kExitSilence, session.connection.error);
    }
    switch (options.command) {
    case Command::kWatch:
        return run_watch(session);
    case Command::kPosition:
        return run_position(session);
    case Command::kSend:
        return run_send(session);
    case Command::kAssist:
        return run_assist(session);
    default:
        return run_simple(session);
    }
}
