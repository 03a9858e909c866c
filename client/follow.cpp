#include "client/follow.h"

#include "client/print.h"

#include <algorithm>
#include <cmath>

namespace {

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

} // namespace

Followed follow_start(Session& session, double answer_s, double silence_s, Clock::time_point end,
                      const Visitor& visit) {
    const Request start = {TAVOR_REQUEST_START, TAVOR_CODE_START, "", answer_s, true};
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(session.connection, start, visit, answer);
    if (!answer) {
        return {outcome, false};
    }
    if (!visit(*answer)) {
        return {Outcome::kDone, true};
    }
    return {exchange_follow(session.connection, {silence_s, end, tell_silence}, visit), true};
}

bool follow_is_failed_start(Session& session, const Record& record) {
    const bool failed =
        record.kind == RecordKind::kResult && record.code == TAVOR_CODE_START && !record_ok(record);
    session.start_failed = session.start_failed || failed;
    return failed;
}

int follow_start_failed(Session& session) {
    return session_fail(session, kExitFailed, kStartFailure);
}
