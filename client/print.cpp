#include "client/print.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kUnknown = "unknown";

// One row a response code, in the order of the codes.
struct ResultText {
    const char* request;
    const char* success;
    const char* failure;
};

constexpr std::array<ResultText, 9> kResultTexts = {{
    {"start", "positioning started", "positioning could not be started"},
    {"stop", "positioning stopped", "positioning could not be stopped"},
    {"download", "firmware written", "firmware could not be written"},
    {"save", "location saved", "location could not be saved"},
    {"debug", "debug outlet switched", "debug outlet could not be switched"},
    {"send", "command sent", "command could not be sent"},
    {"", "", ""},
    {"assist", "assistance download started", "assistance download could not be started"},
    {"assist-download", "assistance data downloaded", "assistance data could not be downloaded"},
}};

bool is_line_end(char c) {
    return c == '\r' || c == '\n';
}

std::string_view without_line_end(std::string_view text) {
    while (!text.empty() && is_line_end(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The value with its decimals and unit; what is not known says so.
std::string quantity(const std::optional<double>& value, int decimals, const char* unit) {
    if (!value) {
        return std::string(kUnknown);
    }
    std::array<char, 400> text = {}; // the largest double has 309 digits before its point
    snprintf(text.data(), text.size(), "%.*f%s", decimals, *value, unit);
    return text.data();
}

// Degrees with the letter of the hemisphere.
std::string angle(const std::optional<double>& value, const char* positive, const char* negative) {
    if (!value) {
        return std::string(kUnknown);
    }
    return quantity(std::fabs(*value), 6, std::signbit(*value) ? negative : positive);
}

// hhmmss.sss as hh:mm:ss.sss UTC; anything else as it is.
std::string time_of_day(const std::optional<std::string>& utc) {
    if (!utc) {
        return std::string(kUnknown);
    }
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    if (utc->size() < 6 || !std::all_of(utc->begin(), utc->begin() + 6, is_digit)) {
        return print_safe(*utc);
    }
    return utc->substr(0, 2) + ":" + utc->substr(2, 2) + ":" + print_safe(utc->substr(4)) + " UTC";
}

// A labelled line of a position.
std::string row(const char* label, const std::string& value) {
    constexpr size_t kLabelWidth = 22;
    std::string line = label;
    line.resize(kLabelWidth, ' ');
    return line + value + "\n";
}

std::string position_line(const Position& p) {
    std::string line = "position: " + time_of_day(p.utc) + ", " + angle(p.latitude, " N", " S") + ", " +
                       angle(p.longitude, " E", " W") + ", height " + quantity(p.height, 1, " m");
    if (p.majorAxis || p.minorAxis) {
        line += ", ellipse " + quantity(p.majorAxis, 1, " m") + " x " + quantity(p.minorAxis, 1, " m") +
                " at " + quantity(p.orientation, 1, " deg");
    }
    if (p.verticalUncertainty) {
        line += ", vertical " + quantity(p.verticalUncertainty, 1, " m");
    }
    return line;
}

template <class Value> Json json_of(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

double rounded(double seconds) {
    return std::round(seconds * 1000) / 1000;
}

void add_details(Json& object, const PositionDetails& details) {
    object["time"] = details.time ? Json(utc_iso(*details.time)) : Json(nullptr);
    object["age"] = details.age_s ? Json(rounded(*details.age_s)) : Json(nullptr);
    object["quality"] = json_of(details.fix.quality);
    object["satellites"] = json_of(details.fix.satellites);
    object["pdop"] = json_of(details.fix.pdop);
    object["hdop"] = json_of(details.fix.hdop);
    object["vdop"] = json_of(details.fix.vdop);
    object["speed"] = details.fix.speed ? Json(rounded(*details.fix.speed)) : Json(nullptr);
    object["course"] = json_of(details.fix.course);
}

void add_position(Json& object, const Position& p) {
    object["utc"] = p.utc ? Json(*p.utc) : Json(nullptr);
    object["latitude"] = json_of(p.latitude);
    object["longitude"] = json_of(p.longitude);
    object["height"] = json_of(p.height);
    object["majorAxis"] = json_of(p.majorAxis);
    object["minorAxis"] = json_of(p.minorAxis);
    object["orientation"] = json_of(p.orientation);
    object["verticalUncertainty"] = json_of(p.verticalUncertainty);
}

// ASCII only, bytes that are no UTF-8 replaced: a dump that can't throw and can't carry an escape sequence.
std::string dump(const Json& object) {
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

void add_result(Json& object, const Record& record) {
    object["request"] = kResultTexts.at(record.code).request;
    object["ok"] = record_ok(record);
    object["value"] = static_cast<int32_t>(record.value);
}

} // namespace

std::string print_safe(std::string_view text) {
    std::string safe;
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            safe += c;
            continue;
        }
        std::array<char, 5> escaped = {};
        snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned>(static_cast<uint8_t>(c)));
        safe += escaped.data();
    }
    return safe;
}

std::string print_seconds(double seconds) {
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "%.9g", seconds);
    return text.data();
}

std::string print_quality(const std::optional<int>& quality) {
    constexpr std::array<const char*, 9> kQualities = {"none",      "autonomous", "differential",
                                                       "PPS",       "RTK fixed",  "RTK float",
                                                       "estimated", "manual",     "simulated"};
    if (!quality) {
        return std::string(kUnknown);
    }
    const auto index = static_cast<size_t>(*quality);
    return index < kQualities.size() ? kQualities.at(index) : "quality " + std::to_string(*quality);
}

std::string print_result(const Record& record) {
    const ResultText& text = kResultTexts.at(record.code);
    return std::string(record_ok(record) ? text.success : text.failure) + "\n";
}

std::string print_sentence(const Record& record) {
    return print_safe(without_line_end(record.text)) + "\n";
}

std::string print_line(const Record& record) {
    switch (record.kind) {
    case RecordKind::kResult:
        return "daemon: " + print_result(record);
    case RecordKind::kNmea:
        return print_sentence(record);
    case RecordKind::kBanner:
        return "daemon: " + print_sentence(record);
    case RecordKind::kChip:
        return "chip: " + print_sentence(record);
    case RecordKind::kPosition:
        return position_line(record.position) + "\n";
    case RecordKind::kUnknown:
        break;
    }
    return "daemon: response of unknown code " + std::to_string(record.code) + "\n";
}

std::string print_json(const Record& record, const PositionDetails& details) {
    const std::string text(without_line_end(record.text));
    Json object;
    switch (record.kind) {
    case RecordKind::kResult:
        object["type"] = "result";
        add_result(object, record);
        break;
    case RecordKind::kNmea:
        object["type"] = "nmea";
        object["sentence"] = text;
        break;
    case RecordKind::kBanner:
        object["type"] = "banner";
        object["text"] = text;
        break;
    case RecordKind::kChip:
        object["type"] = "chip";
        object["sentence"] = text;
        break;
    case RecordKind::kPosition:
        object["type"] = "position";
        add_position(object, record.position);
        add_details(object, details);
        break;
    case RecordKind::kUnknown:
        object["type"] = "unknown";
        object["code"] = record.code;
        object["value"] = record.value;
        break;
    }
    return dump(object);
}

std::string print_position(const Position& p, const PositionDetails& details) {
    const Fix& fix = details.fix;
    return row("time", details.time ? utc_iso(*details.time) : time_of_day(p.utc)) +
           row("latitude", angle(p.latitude, " deg N", " deg S")) +
           row("longitude", angle(p.longitude, " deg E", " deg W")) +
           row("height", quantity(p.height, 1, " m")) + row("major axis", quantity(p.majorAxis, 1, " m")) +
           row("minor axis", quantity(p.minorAxis, 1, " m")) +
           row("orientation", quantity(p.orientation, 1, " deg")) +
           row("vertical uncertainty", quantity(p.verticalUncertainty, 1, " m")) +
           row("satellites used", fix.satellites ? std::to_string(*fix.satellites) : std::string(kUnknown)) +
           row("fix", print_quality(fix.quality)) + row("position DOP", quantity(fix.pdop, 2, "")) +
           row("horizontal DOP", quantity(fix.hdop, 2, "")) + row("vertical DOP", quantity(fix.vdop, 2, "")) +
           row("speed", quantity(fix.speed, 1, " m/s")) + row("course", quantity(fix.course, 1, " deg")) +
           row("age", quantity(details.age_s, 1, " s"));
}

std::string print_position_json(const Position& position, const PositionDetails& details) {
    Json object;
    add_position(object, position);
    add_details(object, details);
    return dump(object);
}

std::string print_ready(bool has_fix) {
    return has_fix ? "the chip has a fix\n" : "the chip sends\n";
}

std::string print_ready_json(bool has_fix) {
    Json object;
    object["type"] = "ready";
    object["fix"] = has_fix;
    return dump(object);
}

std::string print_recording_json(const RecordingCounts& counts) {
    Json object;
    object["type"] = "recording";
    object["file"] = counts.file;
    object["sentences"] = counts.sentences;
    object["bytes"] = counts.bytes;
    object["seconds"] = rounded(counts.seconds);
    return dump(object);
}

std::string print_error_json(ExitStatus status, const std::string& message) {
    const ExitMeaning& meaning = *std::find_if(std::begin(kExitMeanings), std::end(kExitMeanings),
                                               [&](const ExitMeaning& row) { return row.status == status; });
    Json object;
    object["type"] = "error";
    object["error"] = meaning.name;
    object["exit"] = static_cast<int>(status);
    object["message"] = message;
    return dump(object);
}

std::string print_raw(const Record& record) {
    const bool ended = !record.text.empty() && record.text.back() == '\n';
    return ended ? record.text : record.text + "\r\n";
}
