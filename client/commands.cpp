#include "client/commands.h"

#include "client/assist.h"
#include "client/download.h"
#include "client/print.h"
#include "client/session.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <unistd.h>

namespace {

constexpr double kAnswerLimitS = 5;
constexpr double kPositionLimitS = 60;
constexpr double kChipAnswerWaitS = 1;

// A request that is one question and one answer.
struct SimpleRow {
    Command command;
    tavor_request_type type;
    tavor_response_code code;
    // A debug outlet that failed to open is the current one all the same, and asking again then answers
    // success: a second answer would not mean the same.
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
};

const Visitor kSkip = [](const Record&) { return true; };

// How starting and following ended.
struct Followed {
    Outcome outcome;
    bool answered; // the daemon answered the start
};

const SimpleRow& simple_row(const Options& options) {
    return *std::find_if(std::begin(kSimpleRows), std::end(kSimpleRows), [&](const SimpleRow& row) {
        return row.command == options.command && row.outlet == options.outlet;
    });
}

int run_simple(Session& session) {
    const SimpleRow& row = simple_row(session.options);
    const double limit_s = session.options.timeout_s.value_or(row.limit_s);
    std::optional<Record> answer;
    const Outcome outcome =
        exchange_ask(session.connection, {row.type, row.code, "", limit_s, row.repeatable}, kSkip, answer);
    if (answer) {
        return session_report(session, *answer, row.failure);
    }
    return session_end_status(session, outcome, limit_s);
}

void tell_silence(double seconds, int count, bool restarted) {
    if (restarted) {
        session_note("the daemon was restarted: started positioning again");
    } else if (count == 1) {
        session_note("no output for " + print_seconds(std::max(1.0, std::round(seconds))) +
                     " s: another client took it or the chip is silent; taking it back");
    } else if (count == 2) {
        session_note(
            "still no output: positioning is stopped or the chip is silent; 'tavorctl start' starts it");
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

int start_failed_status(Session& session) {
    return session_fail(session, kExitFailed, kSimpleRows[0].failure);
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
    if (shown && !session_emit(session, watch_text(session.options, record))) {
        return false;
    }
    return !failed && (session.options.count == 0 || session.lines < session.options.count);
}

// Status of a watch that ended. Interrupting one that has no limit of its own is the ordinary way to end it.
int watch_status(Session& session, const Followed& followed, double answer_s) {
    if (session.start_failed) {
        return start_failed_status(session);
    }
    if (followed.outcome == Outcome::kTimeout && followed.answered) {
        return session_output_status(session);
    }
    const int status = session_end_status(session, followed.outcome, answer_s);
    const bool endless = session.options.count == 0 && !session.options.duration_s;
    return followed.outcome == Outcome::kInterrupted && endless ? session_output_status(session) : status;
}

int stop_at_end(Session& session, int status) {
    session.connection.output = -1; // a reader that has gone does not keep the chip on
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(
        session.connection, {TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, "", kAnswerLimitS, true}, kSkip, answer);
    if (!answer) {
        return session_end_status(session, outcome, kAnswerLimitS);
    }
    return record_ok(*answer) ? status : session_fail(session, kExitFailed, kSimpleRows[1].failure);
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

// Tells why there is no position: a chip without a fix sends sentences all the same.
int no_position(Session& session, double limit_s, bool chip_heard) {
    const std::string reason =
        chip_heard
            ? "the chip has no fix yet; see that the antenna has a view of the sky, or follow with "
              "'tavorctl watch'"
            : "nothing came from the chip; check its power and connection, and that no other client stops it or "
              "takes its output, and see 'journalctl -u tavor'";
    return session_fail(session, chip_heard ? kExitNoFix : kExitSilentChip,
                        "no position within " + print_seconds(limit_s) + " s: " + reason);
}

int run_position(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kPositionLimitS);
    const double answer_s = limit_s > 0 ? std::min(limit_s, kAnswerLimitS) : kAnswerLimitS;
    std::optional<Position> position;
    bool chip_heard = false;
    const Visitor visit = [&](const Record& record) {
        if (record.kind == RecordKind::kPosition) {
            position = record.position;
        }
        chip_heard = chip_heard || record.kind == RecordKind::kNmea || record.kind == RecordKind::kChip;
        return !position && !is_failed_start(session, record);
    };
    const Followed followed =
        start_and_follow(session, answer_s, {kAnswerLimitS, deadline_in(limit_s), tell_silence}, visit);
    if (position) {
        session_emit(session,
                     session.options.json ? print_position_json(*position) : print_position(*position));
        return session_output_status(session);
    }
    if (session.start_failed) {
        return start_failed_status(session);
    }
    if (followed.outcome == Outcome::kTimeout && followed.answered) {
        return no_position(session, limit_s, chip_heard);
    }
    return session_end_status(session, followed.outcome, answer_s);
}

int run_send(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kAnswerLimitS);
    int64_t answers = 0;
    const Visitor show = [&](const Record& record) {
        if (record.kind != RecordKind::kChip) {
            return true;
        }
        ++answers;
        return session_emit(session, session.options.json ? print_json(record) : print_chip(record));
    };
    const Request request = {TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, session.options.body, limit_s, false};
    std::optional<Record> answer;
    Outcome outcome = exchange_ask(session.connection, request, show, answer);
    if (!answer) {
        return session_end_status(session, outcome, limit_s);
    }
    if (session.options.json) {
        session_emit(session, print_json(*answer));
    }
    if (!record_ok(*answer)) {
        return session_fail(session, kExitFailed,
                            "the command could not be sent: the link to the chip is closed or fails; start "
                            "positioning with 'tavorctl start'");
    }
    const double wait_s = session.options.wait_s.value_or(kChipAnswerWaitS);
    if (wait_s > 0) {
        outcome = exchange_collect(session.connection, deadline_in(wait_s), show);
    }
    if (outcome == Outcome::kTimeout && answers == 0 && !session.options.json) {
        session_note("the chip answered nothing within " + print_seconds(wait_s) + " s; --wait waits longer");
    }
    return outcome == Outcome::kTimeout ? session_output_status(session)
                                        : session_end_status(session, outcome, wait_s);
}

} // namespace

int commands_run(const Options& options, int interrupt) {
    Session session = {options, {}, 0, 0, false};
    session.connection.interrupt = interrupt;
    if (!connection_open(session.connection, options.socket)) {
        const bool interrupted = session.connection.error.empty();
        return session_end_status(session, interrupted ? Outcome::kInterrupted : Outcome::kUnreachable, 0);
    }
    switch (options.command) {
    case Command::kWatch:
        return run_watch(session);
    case Command::kPosition:
        return run_position(session);
    case Command::kSend:
        return run_send(session);
    case Command::kAssist:
        return assist_run(session);
    case Command::kDownload:
        return download_run(session);
    default:
        return run_simple(session);
    }
}
