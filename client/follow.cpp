#include "client/follow.h"

#include "client/print.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kAnswerS = 5;

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

int status_of(Session& session, const Followed& followed) {
    const Options& options = session.options;
    const bool endless = options.count == 0 && !options.duration_s;
    if (session.start_failed) {
        return follow_start_failed(session);
    }
    if (followed.outcome == Outcome::kTimeout && followed.answered) {
        return session_output_status(session);
    }
    const int status = session_end_status(session, followed.outcome, followed.answer_s);
    return followed.outcome == Outcome::kInterrupted && endless ? session_output_status(session) : status;
}

int stop_after(Session& session, const Followed& followed, int status) {
    if (followed.outcome == Outcome::kUnreachable ||
        (!followed.answered && followed.outcome == Outcome::kTimeout)) {
        return status;
    }
    session.connection.output = -1; // a reader that has gone does not keep the chip on
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(
        session.connection, {TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, "", kAnswerS, true},
        [](const Record&) { return true; }, answer);
    if (!answer) {
        return session_end_status(session, outcome, kAnswerS);
    }
    return record_ok(*answer) ? status : session_fail(session, kExitFailed, kStopFailure);
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

Followed follow_for_options(Session& session, const Visitor& visit) {
    const double limit_s = session.options.timeout_s.value_or(kAnswerS);
    const double duration_s = session.options.duration_s.value_or(0);
    const bool is_short = duration_s > 0 && (limit_s <= 0 || duration_s < limit_s);
    const double answer_s = is_short ? duration_s : limit_s;
    Followed followed = follow_start(session, answer_s, limit_s, deadline_in(duration_s), visit);
    followed.answer_s = answer_s;
    return followed;
}

int follow_finish(Session& session, const Followed& followed) {
    const int status = status_of(session, followed);
    return session.options.stop ? stop_after(session, followed, status) : status;
}
