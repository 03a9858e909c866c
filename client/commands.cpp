#include "client/commands.h"

#include "client/assist.h"
#include "client/check.h"
#include "client/download.h"
#include "client/download_check.h"
#include "client/export.h"
#include "client/follow.h"
#include "client/monitor.h"
#include "client/place.h"
#include "client/position.h"
#include "client/print.h"
#include "client/record.h"
#include "client/relay_right.h"
#include "client/save.h"
#include "client/session.h"
#include "client/status.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace {

constexpr double kAnswerLimitS = 5;
// A stop waits for a transfer that hangs in the kernel's driver; drivers give up within 30 s as a rule.
constexpr double kStopLimitS = 40;
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
    {Command::kStart, TAVOR_REQUEST_START, TAVOR_CODE_START, true, "", kAnswerLimitS, kStartFailure},
    {Command::kStop, TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, true, "", kStopLimitS, kStopFailure},
    {Command::kDebug, TAVOR_REQUEST_DEBUG_OFF, TAVOR_CODE_DEBUG, true, "off", kAnswerLimitS,
     "the debug outlet could not be switched off: the daemon answered failure; see 'journalctl --namespace=tavor'"},
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

// The outlet is one of those that the command line takes, so there is a row.
const SimpleRow& simple_row(const Options& options) {
    return *std::find_if(std::begin(kSimpleRows), std::end(kSimpleRows), [&](const SimpleRow& row) {
        return row.command == options.command && row.outlet == options.outlet;
    });
}

// The daemon does not say where it listens, its settings do.
void tell_listener(Session& session) {
    const Place place = place_of(session.options.socket);
    if (place.known && (place.config_error == 0 || place.config_error == ENOENT)) {
        session_emit(session, "by the settings it listens at " +
                                  print_safe(place_text(place, CONFIG_DEBUG_SOCKET_IP)) + ", port " +
                                  std::to_string(place_number(place, CONFIG_DEBUG_SOCKET_PORT)) + "\n");
    }
}

int run_simple(Session& session) {
    const SimpleRow& row = simple_row(session.options);
    const double limit_s = session.options.timeout_s.value_or(row.limit_s);
    std::optional<Record> answer;
    const Outcome outcome =
        exchange_ask(session.connection, {row.type, row.code, "", limit_s, row.repeatable}, kSkip, answer);
    if (answer) {
        const bool takes_right = row.command == Command::kDebug && !record_ok(*answer);
        const std::string hint = takes_right ? relay_right_hint(session.options.socket) : "";
        const int status = session_report(
            session, *answer, hint.empty() ? row.failure : "the debug outlet was not switched: " + hint);
        if (row.outlet == "tcp" && record_ok(*answer) && !session.options.json) {
            tell_listener(session);
        }
        return status;
    }
    return session_end_status(session, outcome, limit_s);
}

std::string watch_text(const Options& options, const Record& record) {
    if (options.json) {
        return print_json(record);
    }
    // A terminal is no place for the chip's bytes as they are.
    return options.raw && isatty(STDOUT_FILENO) == 0 ? print_raw(record) : print_line(record);
}

// A position that waits for the sentence after it, its GGA, which tells the quality.
struct Watched {
    Fix fix;
    std::optional<Record> position;
};

bool watch_emit(Session& session, const std::string& text) {
    return session_emit(session, text) &&
           (session.options.count == 0 || session.lines < session.options.count);
}

// Prints the position that waits. False when the watch has enough.
bool watch_position(Session& session, Watched& watched) {
    if (!watched.position) {
        return true;
    }
    const Record record = *std::exchange(watched.position, std::nullopt);
    return watch_emit(session, print_json(record, position_details(watched.fix, record.position)));
}

bool watch_record(Session& session, Watched& watched, const Record& record) {
    if (record.kind == RecordKind::kNmea) {
        nmea_take(watched.fix, record.text);
    }
    if (!watch_position(session, watched)) {
        return false;
    }
    if (record.kind == RecordKind::kPosition && session.options.json) {
        watched.position = record;
        return true;
    }
    const bool failed = follow_is_failed_start(session, record);
    const bool shown = !session.options.raw || record.kind == RecordKind::kNmea;
    return (!shown || watch_emit(session, watch_text(session.options, record))) && !failed;
}

int run_watch(Session& session) {
    session.connection.output = STDOUT_FILENO;
    Watched watched;
    const Followed followed = follow_for_options(
        session, [&](const Record& record) { return watch_record(session, watched, record); });
    watch_position(session, watched);
    return follow_finish(session, followed);
}

int run_send(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kAnswerLimitS);
    int64_t answers = 0;
    const Visitor show = [&](const Record& record) {
        if (record.kind != RecordKind::kChip) {
            return true;
        }
        ++answers;
        return session_emit(session, session.options.json ? print_json(record) : print_sentence(record));
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
        const std::string hint = relay_right_hint(session.options.socket);
        if (!hint.empty()) {
            return session_fail(session, kExitFailed, "the command was not sent: " + hint);
        }
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

// Without a default: the compiler names a command that is missing here.
int run_connected(Session& session) {
    const Options& options = session.options;
    switch (options.command) {
    case Command::kStart:
        return options.wait_s ? position_run_start(session) : run_simple(session);
    case Command::kStop:
    case Command::kDebug:
        return run_simple(session);
    case Command::kWatch:
        return run_watch(session);
    case Command::kPosition:
        return position_run(session);
    case Command::kSend:
        return run_send(session);
    case Command::kAssist:
        return assist_run(session);
    case Command::kSave:
        return save_run(session);
    case Command::kDownload:
        return download_run(session);
    case Command::kRecord:
        return record_run(session);
    case Command::kExport:
        return export_run(session);
    case Command::kMonitor:
        return monitor_run(session);
    case Command::kCheck:
    case Command::kStatus:
        break; // they need no connection
    }
    return kExitUsage;
}

} // namespace

int commands_run(const Options& options, int interrupt) {
    Session session = {options, {}, 0, 0, false};
    session.connection.interrupt = interrupt;
    if (options.command == Command::kCheck) {
        return check_run(session);
    }
    if (options.command == Command::kStatus) {
        return status_run(session);
    }
    if (options.command == Command::kDownload && options.check) {
        return download_check_run(session);
    }
    if (options.command == Command::kExport && !options.file.empty()) {
        return export_run_file(session);
    }
    if (!connection_open(session.connection, options.socket)) {
        const bool interrupted = session.connection.error.empty();
        return session_end_status(session, interrupted ? Outcome::kInterrupted : Outcome::kUnreachable, 0);
    }
    return run_connected(session);
}
