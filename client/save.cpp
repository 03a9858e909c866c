#include "client/save.h"

#include "client/daemon_files.h"
#include "client/nmea.h"
#include "client/print.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr double kAnswerLimitS = 5;
constexpr double kOldS = 5;    // a position of this age is told to be old
constexpr double kFreshS = 30; // a file that is older is not the one that was just written
constexpr char kFailure[] =
    "the location could not be saved: the daemon answered failure; check that the place of 'NMEA file path=' is "
    "writable";

// The file that this save has written, when it can be seen from here.
std::optional<SavedLocation> written_file(const Session& session) {
    const auto saved = daemon_files_location(place_of(session.options.socket));
    return saved && saved->age_s.value_or(kFreshS) < kFreshS ? saved : std::nullopt;
}

// By the time of day: the file has no date.
std::optional<double> age_of(const Position& position) {
    return position.utc ? nmea_age_undated(*position.utc, std::chrono::system_clock::now()) : std::nullopt;
}

template <class Value> Json json_of(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

std::string json_text(const SavedLocation& saved, const std::optional<double>& age_s) {
    const Position& position = saved.position;
    Json object;
    object["type"] = "location";
    object["path"] = saved.path;
    object["utc"] = json_of(position.utc);
    object["latitude"] = json_of(position.latitude);
    object["longitude"] = json_of(position.longitude);
    object["height"] = json_of(position.height);
    object["age"] = age_s ? Json(std::round(*age_s)) : Json(nullptr);
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

int report_file(Session& session, const SavedLocation& saved) {
    const std::optional<double> age_s = age_of(saved.position);
    const bool known = saved.position.latitude && saved.position.longitude;
    if (session.options.json) {
        session_emit(session, json_text(saved, age_s));
    }
    if (!known) {
        return session_fail(
            session, kExitNoFix,
            "nothing is known yet: " + print_safe(saved.path) +
                " holds empty values now, and what it held before is gone; wait for a fix ('tavorctl "
                "start --fix') and save again");
    }
    if (!session.options.json) {
        Record record;
        record.kind = RecordKind::kPosition;
        record.position = saved.position;
        session_emit(session, print_line(record));
    }
    if (!age_s) {
        session_note("how old this position is can't be told: the file has no time, or one that is "
                     "ahead of this host's clock");
    } else if (*age_s > kOldS) {
        session_note("this position is " + print_seconds(std::round(*age_s)) +
                     " s old by the clock of this host: the chip has no fix now, or is off");
    }
    return session_output_status(session);
}

} // namespace

int save_run(Session& session) {
    const double limit_s = session.options.timeout_s.value_or(kAnswerLimitS);
    std::optional<Record> answer;
    const Request request = {TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION, "", limit_s, true};
    const Outcome outcome = exchange_ask(
        session.connection, request, [](const Record&) { return true; }, answer);
    if (!answer) {
        return session_end_status(session, outcome, limit_s);
    }
    const auto saved = record_ok(*answer) ? written_file(session) : std::nullopt;
    const bool empty = saved && !(saved->position.latitude && saved->position.longitude);
    const int status = empty && !session.options.json ? static_cast<int>(kExitSuccess)
                                                      : session_report(session, *answer, kFailure);
    return saved && status == kExitSuccess ? report_file(session, *saved) : status;
}
