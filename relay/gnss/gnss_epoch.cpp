#include "gnss/gnss_epoch.h"

#include "gnss/gnss_sky.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr size_t kKeysMax = 64; // of an epoch; a longer one is cut in two

// A kind of sentence: what is read of it, and where its time stands (0: it has none).
struct SentenceRow {
    std::string_view type;
    size_t time;
    void (*take)(GnssReader& reader, const Sentence& sentence);
};

void take_position(GnssEpoch& epoch, const Sentence& sentence, size_t first) {
    if (const auto place = sentence_place(sentence, first)) {
        epoch.latitude = place->latitude;
        epoch.longitude = place->longitude;
    }
}

void take_gga(GnssReader& reader, const Sentence& sentence) {
    GnssEpoch& epoch = reader.epoch;
    epoch.quality = sentence_count(sentence.fields[6]);
    take_position(epoch, sentence, 2);
    epoch.altitude = sentence_signed(sentence.fields[9]);
    epoch.separation = sentence_signed(sentence.fields[11]);
}

void take_date(GnssReader& reader, const Sentence& sentence,
               const std::optional<std::chrono::sys_days>& day) {
    const auto time = utc_time(sentence.fields[1]);
    if (day && time) {
        reader.dated = *day + *time;
    }
}

void take_rmc(GnssReader& reader, const Sentence& sentence) {
    reader.epoch.speed = sentence_speed(sentence.fields[7]);
    reader.epoch.course = sentence_number(sentence.fields[8]);
    if (reader.epoch.course) {
        reader.epoch.course = std::fmod(*reader.epoch.course, 360); // rounded, it may be told as 360
    }
    reader.valid = sentence.fields[2] == "A";
    if (!reader.epoch.latitude) {
        take_position(reader.epoch, sentence, 3);
    }
    take_date(reader, sentence, utc_day(sentence.fields[9]));
}

void take_gll(GnssReader& reader, const Sentence& sentence) {
    if (!reader.epoch.latitude) {
        take_position(reader.epoch, sentence, 1);
    }
    if (!reader.valid) { // what RMC says comes first
        reader.valid = sentence.fields[6] == "A";
    }
}

void take_gst(GnssReader& reader, const Sentence& sentence) {
    reader.epoch.errors = GnssErrors{sentence_number(sentence.fields[2]), sentence_number(sentence.fields[3]),
                                     sentence_number(sentence.fields[4]), sentence_number(sentence.fields[5]),
                                     sentence_number(sentence.fields[6]), sentence_number(sentence.fields[7]),
                                     sentence_number(sentence.fields[8])};
}

// Tells what GGA does, where that does not come.
void take_gns(GnssReader& reader, const Sentence& sentence) {
    GnssEpoch& epoch = reader.epoch;
    if (!epoch.quality) {
        epoch.quality = sentence_quality(sentence.fields[6]);
        take_position(epoch, sentence, 2);
        epoch.altitude = sentence_signed(sentence.fields[9]);
        epoch.separation = sentence_signed(sentence.fields[10]);
    }
}

void take_zda(GnssReader& reader, const Sentence& sentence) {
    take_date(reader, sentence, utc_day_of_zda(sentence));
}

void take_nothing(GnssReader& /*unused*/, const Sentence& /*unused*/) {}

constexpr SentenceRow kSentences[] = {
    {"GGA", 1, take_gga},     {"RMC", 1, take_rmc},          {"GLL", 5, take_gll},
    {"GST", 1, take_gst},     {"GSA", 0, gnss_sky_take_gsa}, {"GSV", 0, gnss_sky_take_gsv},
    {"ZDA", 1, take_zda},     {"GNS", 1, take_gns},          {"GBS", 1, take_nothing},
    {"GRS", 1, take_nothing}, {"VTG", 0, take_nothing},
};

const SentenceRow* row_of(std::string_view type) {
    const auto* const found = std::find_if(std::begin(kSentences), std::end(kSentences),
                                           [&](const SentenceRow& row) { return row.type == type; });
    return found == std::end(kSentences) ? nullptr : found;
}

// Sentences of one kind that come several times in an epoch differ in their keys.
std::string key_of(const Sentence& sentence) {
    std::string key(sentence.fields[0]);
    if (key.ends_with("GSV")) {
        key += sentence.fields[1] == sentence.fields[2] ? "last" : "";
        if (sentence.count % 4 == 1) { // after satellites of four fields each: the number of the signal
            key += sentence.fields.at(sentence.count - 1);
        }
    } else if (key.ends_with("GSA") && sentence.count > 18) {
        key += sentence.fields[18];
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
std::optional<Utc> time_of(const GnssReader& reader) {
    const auto time = utc_time(reader.time);
    return time && reader.dated ? std::optional(utc_nearest(*time, *reader.dated)) : std::nullopt;
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
    if (epoch.mode < GnssMode::k2d) {
        epoch.latitude = epoch.longitude = epoch.altitude = epoch.separation = std::nullopt;
        epoch.speed = epoch.course = std::nullopt;
    }
    tell(to, epoch);
    epoch.has_view = epoch.has_sky = false;
    epoch.errors.reset();
}

// The sky stays what it is until it is told anew, which may be in one epoch of many; it and errors that came
// after what ended the epoch are told with the next one.
void begin(GnssReader& reader) {
    if (!reader.keys.empty()) {
        reader.last_key = reader.keys.back();
    }
    GnssEpoch& last = reader.epoch;
    GnssEpoch next;
    next.satellites = std::move(last.satellites);
    next.pdop = last.pdop;
    next.hdop = last.hdop;
    next.vdop = last.vdop;
    next.errors = last.errors;
    next.has_view = last.has_view;
    next.has_sky = last.has_sky;
    reader.epoch = std::move(next);
    reader.time.clear();
    reader.keys.clear();
    reader.valid.reset();
    reader.gsa_mode.reset();
    reader.told = false;
    reader.new_sky = reader.new_used = false;
}

bool is_of_next(const GnssReader& reader, const SentenceRow& row, const std::string& key,
                std::string_view time) {
    const bool repeats =
        comes_once(row.type) && std::find(reader.keys.begin(), reader.keys.end(), key) != reader.keys.end();
    const bool other_time = !time.empty() && !reader.time.empty() && time != reader.time &&
                            utc_time(time) != utc_time(reader.time);
    return repeats || other_time || reader.keys.size() >= kKeysMax;
}

} // namespace

void gnss_reader_take(GnssReader& reader, std::string_view text,
                      void (*tell)(void* to, const GnssEpoch& epoch), void* to) {
    const Sentence sentence = sentence_split(text);
    const SentenceRow* const row = row_of(sentence.type);
    if (row == nullptr) {
        return;
    }
    const std::string key = key_of(sentence);
    const std::string_view time = row->time > 0 ? sentence.fields[row->time] : "";
    if (is_of_next(reader, *row, key, time)) {
        finish(reader, tell, to);
        begin(reader);
    }
    if (reader.time.empty()) {
        reader.time = time;
    }
    reader.keys.push_back(key);
    row->take(reader, sentence);
    if (key == reader.last_key) {
        finish(reader, tell, to);
    }
}

void gnss_reader_forget(GnssReader& reader) {
    GnssReader next;
    next.last_key = reader.last_key; // unless it is not known yet: this epoch may be cut
    if (reader.last_key.empty() && !reader.keys.empty()) {
        next.last_key = reader.keys.back();
    }
    reader = std::move(next);
}
