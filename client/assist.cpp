#include "client/assist.h"

#include "client/exchange.h"
#include "client/print.h"

#include <optional>

namespace {

constexpr double kAnswerLimitS = 5;
constexpr double kAssistWaitS = 30; // the daemon starts the next due download after three seconds

constexpr char kAssistFailure[] =
    "assistance data could not be downloaded: the daemon answered failure and tries again later; check the "
    "identity ('XOD vendor=', 'XOD project=', 'XOD device id='), 'XOD host=' and the network";

// What following the downloads has seen.
struct Downloads {
    int64_t count = 0;
    bool failed = false; // the last one
};

// Shows a download's outcome. False when there is nothing more to wait for.
bool show_download(Session& session, const Record& record, Downloads& downloads) {
    ++downloads.count;
    downloads.failed = !record_ok(record);
    const bool shown = !downloads.failed || session.options.json;
    if (shown && !session_emit(session, session.options.json ? print_json(record) : print_result(record))) {
        return false;
    }
    if (downloads.failed && !session.options.once) {
        session_note(kAssistFailure);
    }
    return !(downloads.failed && session.options.once); // it is tried again in minutes only
}

// Status of a run whose failure, if any, has been told.
int last_status(Session& session, const Downloads& downloads) {
    return downloads.failed ? kExitFailed : session_output_status(session);
}

int downloads_status(Session& session, const Downloads& downloads, double wait_s) {
    if (downloads.failed && session.options.once) {
        return session_fail(session, kExitFailed, kAssistFailure);
    }
    if (downloads.count == 0) {
        session_note("no download ended within " + print_seconds(wait_s) +
                     " s: the stored data are fresh, the server is slow, or a download that failed waits for "
                     "its retry; the daemon goes on by itself and logs which");
    }
    return last_status(session, downloads);
}

// Shows each download's outcome until none has come for wait_s seconds, 0: without end.
int follow_downloads(Session& session, double wait_s) {
    Downloads downloads;
    for (bool goes_on = true; goes_on;) {
        const int64_t before = downloads.count;
        const Outcome outcome =
            exchange_collect(session.connection, deadline_in(wait_s), [&](const Record& record) {
                const bool is_result =
                    record.kind == RecordKind::kResult && record.code == TAVOR_CODE_ASSIST_RESULT;
                goes_on = !is_result || show_download(session, record, downloads);
                return !is_result;
            });
        if (outcome == Outcome::kInterrupted && wait_s <= 0) {
            return last_status(session, downloads); // the ordinary way to end it
        }
        if (outcome != Outcome::kDone && outcome != Outcome::kTimeout) {
            return session_end_status(session, outcome, wait_s);
        }
        goes_on = goes_on && downloads.count > before;
    }
    return downloads_status(session, downloads, wait_s);
}

} // namespace

int assist_run(Session& session) {
    const Options& options = session.options;
    const double limit_s = options.timeout_s.value_or(kAnswerLimitS);
    // Not repeatable: a second request while a download runs would set up its schedule twice.
    const Request request = {TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST, "", limit_s, false};
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(
        session.connection, request, [](const Record&) { return true; }, answer);
    if (!answer) {
        return session_end_status(session, outcome, limit_s);
    }
    const int status =
        session_report(session, *answer,
                       "the assistance download could not be started: the daemon answered failure; see "
                       "'journalctl --namespace=tavor'");
    if (status != kExitSuccess || options.wait_s == 0.0) {
        return status;
    }
    return follow_downloads(session, options.wait_s.value_or(options.once ? kAssistWaitS : 0));
}
