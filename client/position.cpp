#include "client/position.h"

#include "client/follow.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr double kAnswerLimitS = 5;
constexpr double kPositionLimitS = 60;
constexpr double kEpochS = 1.5;      // within which what belongs to a position has come
constexpr double kUnknownAgeS = 1e9; // counts as too old
constexpr double kOldS = 5;          // a position of this age is told to be old

// What has been heard of the chip.
struct Heard {
    bool chip = false;
    bool has_fix = false; // by the latest GGA
    Fix fix;
};

SentenceKind hear(Heard& heard, const Record& record) {
    heard.chip = heard.chip || record.kind == RecordKind::kNmea || record.kind == RecordKind::kChip;
    const SentenceKind kind =
        record.kind == RecordKind::kNmea ? nmea_take(heard.fix, record.text) : SentenceKind::kOther;
    heard.has_fix = kind == SentenceKind::kFix ? heard.fix.quality.value_or(0) > 0 : heard.has_fix;
    return kind;
}

// Tells why what was waited for has not come: a chip without a fix sends sentences all the same.
int no_fix(Session& session, const std::string& what, double limit_s, const Heard& heard) {
    const std::string reason =
        heard.chip
            ? "the chip has no fix yet; see that the antenna has a view of the sky, or follow with "
              "'tavorctl watch'"
            : "nothing came from the chip; check its power and connection, and that no other client stops it or "
              "takes its output, and see 'journalctl --namespace=tavor'";
    return session_fail(session, heard.chip ? kExitNoFix : kExitSilentChip,
                        what + " within " + print_seconds(limit_s) + " s: " + reason);
}

// The search for a position.
struct Search {
    Heard heard;
    std::optional<Position> block; // awaits its GGA
    std::optional<Position> found;
    bool too_old = false;        // the latest one that came
    std::optional<double> old_s; // its age, where that can be told
};

// Takes the position whose GGA has come: it tells whether the position is one of now.
void judge(Search& search, const Options& options) {
    const Position position = *std::exchange(search.block, std::nullopt);
    if (search.heard.fix.quality == 0) {
        return;
    }
    const auto age_s = position_details(search.heard.fix, position).age_s;
    if (options.max_age_s && age_s.value_or(kUnknownAgeS) > *options.max_age_s) {
        search.too_old = true;
        search.old_s = age_s;
        return;
    }
    search.found = position;
}

// False when a position is found.
bool search_in(Session& session, Search& search, const Record& record) {
    const SentenceKind kind = hear(search.heard, record);
    if (record.kind == RecordKind::kPosition) {
        search.block = record.position;
    } else if (kind == SentenceKind::kFix && search.block) {
        judge(search, session.options);
    }
    return !search.found && !follow_is_failed_start(session, record);
}

// Takes what belongs to the position and comes after it: the date, speed and DOP of the same moment.
void complete(Session& session, Search& search) {
    Fix& fix = search.heard.fix;
    const auto is_whole = [&] {
        return fix.pdop && fix.dated && search.found->utc &&
               nmea_moment(fix, *search.found->utc) == fix.dated;
    };
    if (!is_whole()) {
        exchange_collect(session.connection, deadline_in(kEpochS), [&](const Record& record) {
            const bool next = record.kind == RecordKind::kPosition;
            if (!next) {
                hear(search.heard, record);
            }
            return !next && !is_whole();
        });
    }
}

int too_old(Session& session, const Search& search, double limit_s) {
    const std::string begin = "no position as young as asked for within " + print_seconds(limit_s) + " s: ";
    const std::string reason =
        search.old_s
            ? "the last was " + print_seconds(std::round(*search.old_s)) +
                  " s old by the clock of this host; check that clock and what holds the daemon up"
            : "its age can't be told; set the clock of this host, or see that the chip sends RMC with a date";
    return session_fail(session, kExitNoFix, begin + reason);
}

int report_position(Session& session, const Search& search) {
    const PositionDetails details = position_details(search.heard.fix, *search.found);
    session_emit(session, session.options.json ? print_position_json(*search.found, details)
                                               : print_position(*search.found, details));
    if (details.age_s.value_or(0) > kOldS) {
        session_note("this position is " + print_seconds(std::round(*details.age_s)) +
                     " s old by the clock of this host");
    }
    return session_output_status(session);
}

} // namespace

PositionDetails position_details(const Fix& fix, const Position& position) {
    const auto time = position.utc ? nmea_moment(fix, *position.utc) : std::nullopt;
    return {fix, time, nmea_age(time, std::chrono::system_clock::now())};
}

int position_run(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kPositionLimitS);
    const double answer_s = limit_s > 0 ? std::min(limit_s, kAnswerLimitS) : kAnswerLimitS;
    Search search;
    const Followed followed =
        follow_start(session, answer_s, kAnswerLimitS, deadline_in(limit_s),
                     [&](const Record& record) { return search_in(session, search, record); });
    if (search.found) {
        complete(session, search);
        return report_position(session, search);
    }
    if (session.start_failed) {
        return follow_start_failed(session);
    }
    if (followed.outcome != Outcome::kTimeout || !followed.answered) {
        return session_end_status(session, followed.outcome, answer_s);
    }
    if (search.too_old) {
        return too_old(session, search, limit_s);
    }
    return no_fix(session, "no position", limit_s, search.heard);
}

int position_run_start(Session& session) {
    const Options& options = session.options;
    const double wait_s = *options.wait_s;
    const double limit_s = options.timeout_s.value_or(kAnswerLimitS);
    Heard heard;
    bool told = false;
    const auto is_ready = [&] { return options.fix ? heard.has_fix : heard.chip; };
    const Followed followed =
        follow_start(session, limit_s, kAnswerLimitS, deadline_in(wait_s), [&](const Record& record) {
            hear(heard, record);
            const bool failed = follow_is_failed_start(session, record);
            const bool answer = record.kind == RecordKind::kResult && record.code == TAVOR_CODE_START;
            if (answer && !told && !failed) {
                told = true;
                session_report(session, record, "");
            }
            return !failed && !(told && is_ready());
        });
    if (session.start_failed) {
        return follow_start_failed(session);
    }
    if (followed.answered && is_ready()) {
        session_emit(session, options.json ? print_ready_json(heard.has_fix) : print_ready(heard.has_fix));
        return session_output_status(session);
    }
    if (followed.outcome != Outcome::kTimeout || !followed.answered) {
        return session_end_status(session, followed.outcome, limit_s);
    }
    return no_fix(session,
                  options.fix ? "positioning is started; no fix" : "positioning is started; no sentence",
                  wait_s, heard);
}
