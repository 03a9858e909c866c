#include "gnss/gnss_epoch.h"

#include "gnss/gnss_fields.h"
#include "gnss/gnss_sky.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace {

constexpr double kMetresPerSecond = 1852.0 / 3600; // of a knot
constexpr size_t kKeysMax = 64;                    // of an epoch; a longer one is cut in two
constexpr std::chrono::hours kHalfDay{12};

// A kind of sentence: what is read of it, and where its time stands (0: it has none).
struct SentenceRow {
    std::string_view type;
    size_t time;
    void (*take)(GnssReader& reader, const GnssFields& fields);
};

void take_position(GnssEpoch& epoch, const GnssFields& fields, size_t first) {
    const auto latitude = gnss_fields_angle(fields.field[first], fields.field[first + 1]);
    const auto longitude = gnss_fields_angle(fields.field[first + 2], fields.field[first + 3]);
    if (latitude && longitude) {
        epoch.latitude = latitude;
        epoch.longitude = longitude;
    }
}

void take_gga(GnssReader& reader, const GnssFields& fields) {
    GnssEpoch& epoch = reader.epoch;
    epoch.quality = gnss_fields_count(fields.field[6]);
    take_position(epoch, fields, 2);
    epoch.altitude = gnss_fields_number(fields.field[9]);
    epoch.separation = gnss_fields_number(fields.field[11]);
}

void take_rmc(GnssReader& reader, const GnssFields& fields) {
    const auto knots = gnss_fields_number(fields.field[7]);
    reader.epoch.speed = knots ? std::optional(*knots * kMetresPerSecond) : std::nullopt;
    reader.epoch.course = gnss_fields_number(fields.field[8]);
    reader.valid = fields.field[2] == "A";
    if (!reader.epoch.latitude) {
        take_position(reader.epoch, fields, 3);
    }
    const auto day = gnss_fields_date(fields.field[9]);
    const auto time = gnss_fields_time(fields.field[1]);
    if (day && time) {
        reader.day = day;
        reader.day_time = time;
    }
}

void take_gll(GnssReader& reader, const GnssFields& fields) {
    if (!reader.epoch.latitude) {
        take_position(reader.epoch, fields, 1);
    }
}

void take_gst(GnssReader& reader, const GnssFields& fields) {
    reader.epoch.errors = GnssErrors{gnss_fields_number(fields.field[2]), gnss_fields_number(fields.field[3]),
                                     gnss_fields_number(fields.field[4]), gnss_fields_number(fields.field[5]),
                                     gnss_fields_number(fields.field[6]), gnss_fields_number(fields.field[7]),
                                     gnss_fields_number(fields.field[8])};
}

void take_nothing(GnssReader& /*unused*/, const GnssFields& /*unused*/) {}

constexpr SentenceRow kSentences[] = {
    {"GGA", 1, take_gga},     {"RMC", 1, take_rmc},          {"GLL", 5, take_gll},
    {"GST", 1, take_gst},     {"GSA", 0, gnss_sky_take_gsa}, {"GSV", 0, gnss_sky_take_gsv},
    {"ZDA", 1, take_nothing}, {"GNS", 1, take_nothing},      {"GBS", 1, take_nothing},
    {"GRS", 1, take_nothing}, {"VTG", 0, take_nothing},
};

const SentenceRow* row_of(std::string_view name) {
    const std::string_view type = name.size() == 6 ? name.substr(3) : "";
    const auto* const found = std::find_if(std::begin(kSentences), std::end(kSentences),
                                           [&](const SentenceRow& row) { return row.type == type; });
    return found == std::end(kSentences) ? nullptr : found;
}

// Sentences of one kind that come several times in an epoch differ in their keys.
std::string key_of(const GnssFields& fields) {
    std::string key(fields.field[0]);
    if (key.ends_with("GSV")) {
        key += fields.field[1] == fields.field[2] ? "last" : "";
    } else if (key.ends_with("GSA") && fields.count > 18) {
        key += fields.field[18];
    }
    return key;
}

bool comes_once(std::string_view type) {
    return type != "GSA" && type != "GSV";
}

GnssMode mode_of(const GnssReader& reader) {
    const GnssEpoch& epoch = reader.epoch;
    if (!epoch.quality && !reader.valid && !reader.gsa_mode) {
        return GnssMode::kUnknown;
    }
    if (epoch.quality.value_or(1) == 0 || !reader.valid.value_or(true) || reader.gsa_mode == 1 ||
        !epoch.latitude) {
        return GnssMode::kNoFix;
    }
    const bool flat = reader.gsa_mode ? reader.gsa_mode == 2 : !epoch.altitude.has_value();
    return flat ? GnssMode::k2d : GnssMode::k3d;
}

// The moment of the epoch, less than half a day away from the latest date.
std::optional<GnssTime> time_of(const GnssReader& reader) {
    const auto time = gnss_fields_time(reader.time);
    if (!time || !reader.day) {
        return std::nullopt;
    }
    const GnssTime moment = *reader.day + *time;
    const auto ahead = *time - *reader.day_time;
    if (ahead > kHalfDay) {
        return moment - std::chrono::days(1);
    }
    return ahead < -kHalfDay ? moment + std::chrono::days(1) : moment;
}

// Completes and tells the epoch.
void finish(GnssReader& reader, void (*tell)(void*, const GnssEpoch&), void* to) {
    if (reader.told || reader.keys.empty()) {
        return;
    }
    reader.told = true;
    GnssEpoch& epoch = reader.epoch;
    epoch.mode = mode_of(reader);
    epoch.time = time_of(reader);
    gnss_sky_mark_used(reader);
    if (epoch.mode != GnssMode::k2d && epoch.mode != GnssMode::k3d) {
        epoch.latitude = epoch.longitude = epoch.altitude = epoch.separation = std::nullopt;
        epoch.speed = epoch.course = std::nullopt;
    }
    tell(to, epoch);
}

void begin(GnssReader& reader) {
    if (!reader.keys.empty()) {
        reader.last_key = reader.keys.back();
    }
    GnssEpoch next;
    next.satellites = std::move(reader.epoch.satellites);
    reader.epoch = std::move(next);
    reader.time.clear();
    reader.keys.clear();
    reader.used.clear();
    reader.valid.reset();
    reader.gsa_mode.reset();
    reader.told = false;
    reader.new_sky = false;
}

bool is_of_next(const GnssReader& reader, const SentenceRow& row, const std::string& key,
                std::string_view time) {
    const bool repeats =
        comes_once(row.type) && std::find(reader.keys.begin(), reader.keys.end(), key) != reader.keys.end();
    const bool other_time = !time.empty() && !reader.time.empty() && time != reader.time;
    return repeats || other_time || reader.keys.size() >= kKeysMax;
}

} // namespace

void gnss_reader_take(GnssReader& reader, std::string_view sentence,
                      void (*tell)(void* to, const GnssEpoch& epoch), void* to) {
    const GnssFields fields = gnss_fields_split(sentence);
    const SentenceRow* const row = row_of(fields.field[0]);
    if (row == nullptr) {
        return;
    }
    const std::string key = key_of(fields);
    const std::string_view time = row->time > 0 ? fields.field[row->time] : "";
    if (is_of_next(reader, *row, key, time)) {
        finish(reader, tell, to);
        begin(reader);
    }
    if (reader.time.empty()) {
        reader.time = time;
    }
    reader.keys.push_back(key);
    row->take(reader, fields);
    if (key == reader.last_key) {
        finish(reader, tell, to);
    }
}

std::string gnss_iso(GnssTime time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss of_day(time - day);
    std::array<char, 48> text = {};
    snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
             static_cast<int>(of_day.hours().count()), static_cast<int>(of_day.minutes().count()),
             static_cast<int>(of_day.seconds().count()), static_cast<int>(of_day.subseconds().count()));
    return text.data();
}
