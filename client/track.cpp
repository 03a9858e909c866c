#include "client/track.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

namespace {

using std::chrono::milliseconds;

constexpr double kHalfDayMs = 12.0 * 60 * 60 * 1000;
constexpr double kDayMs = 2 * kHalfDayMs;

// Numbers of the fields in their sentences.
constexpr size_t kTime = 1;
constexpr size_t kFixPlace = 2, kFixAltitude = 9, kGgaGeoid = 11, kGnsGeoid = 10;
constexpr size_t kRmcStatus = 2, kRmcPlace = 3, kRmcDate = 9;

// Seconds from one point to the next, none when that can't be determined.
std::optional<double> seconds_between(const TrackPoint& from, const TrackPoint& to) {
    if (from.time && to.time) {
        return static_cast<double>((*to.time - *from.time).count()) / 1000;
    }
    if (from.of_day && to.of_day) {
        const double ms = static_cast<double>((*to.of_day - *from.of_day).count());
        return (ms < -kHalfDayMs ? ms + kDayMs : ms) / 1000;
    }
    return std::nullopt;
}

// A moment of a leap second, 23:59:60 and what follows, has the same time as the one a second after it, as
// everywhere where a day has 86,400 seconds.
bool is_in_leap_second(const TrackPoint& point) {
    return point.of_day && *point.of_day >= std::chrono::days(1);
}

bool begins_segment(const Track& track, const TrackPoint& point) {
    if (!track.last) {
        return true;
    }
    const auto seconds = seconds_between(*track.last, point);
    const double back_s = is_in_leap_second(*track.last) ? -1 : 0;
    return seconds && (*seconds < back_s || *seconds > track.gap_s);
}

// Metres along a sphere; good to half a percent.
double metres_between(const TrackPoint& from, const TrackPoint& to) {
    constexpr double kEarthRadius = 6371000;
    constexpr double kRadians = std::numbers::pi / 180;
    const double north = std::sin((to.latitude - from.latitude) * kRadians / 2);
    const double east = std::sin((to.longitude - from.longitude) * kRadians / 2);
    const double narrow = std::cos(from.latitude * kRadians) * std::cos(to.latitude * kRadians);
    return 2 * kEarthRadius * std::asin(std::sqrt(std::min(1.0, north * north + narrow * east * east)));
}

// Whether a track that is thinned leaves the point out. One whose time can't be determined is kept.
bool is_too_near(const Track& track, const TrackPoint& point) {
    if (point.begins || !track.told) {
        return false;
    }
    const bool soon =
        track.every_s > 0 && seconds_between(*track.told, point).value_or(track.every_s) < track.every_s;
    return soon || (track.every_m > 0 && metres_between(*track.told, point) < track.every_m);
}

void tell(Track& track, TrackPoint point, const TrackVisitor& visit) {
    point.begins = begins_segment(track, point);
    track.last = point;
    if (is_too_near(track, point)) {
        return;
    }
    ++track.points;
    track.segments += point.begins ? 1 : 0;
    visit(point);
    track.told = point;
}

// Gives points that waited their dates, the latest first: each lies near the one after it.
void date_waiting(Track& track) {
    std::optional<Utc> anchor = track.dated;
    for (auto point = track.waiting.rbegin(); point != track.waiting.rend(); ++point) {
        const std::optional<Utc> near = anchor ? anchor : point->stamp;
        point->time =
            near && point->of_day ? std::optional(utc_nearest(*point->of_day, *near)) : std::nullopt;
        anchor = anchor && point->time ? point->time : anchor;
    }
}

void tell_waiting(Track& track, const TrackVisitor& visit) {
    date_waiting(track);
    while (!track.waiting.empty()) {
        tell(track, track.waiting.front(), visit);
        track.waiting.pop_front();
    }
}

// A point for which no date comes does not wait for ever.
void tell_oldest(Track& track, const TrackVisitor& visit) {
    TrackPoint& oldest = track.waiting.front();
    if (oldest.stamp && oldest.of_day) {
        oldest.time = utc_nearest(*oldest.of_day, *oldest.stamp);
    }
    tell(track, oldest, visit);
    track.waiting.pop_front();
}

void finish_epoch(Track& track, const TrackVisitor& visit) {
    TrackPoint& point = track.epoch;
    if (track.open && track.placed) {
        if (track.day && point.of_day) {
            track.dated = *track.day + *point.of_day;
        }
        if (track.dated && point.of_day) {
            point.time = utc_nearest(*point.of_day, *track.dated);
            track.dated = point.time;
        }
        track.waiting.push_back(point);
    }
    track.open = false;
    if (track.dated) {
        tell_waiting(track, visit);
    } else if (track.waiting.size() > kTrackWaiting) {
        tell_oldest(track, visit);
    }
}

// Sentences of one moment have the same time of day.
void enter_epoch(Track& track, const Sentence& sentence, const TrackVisitor& visit) {
    const auto of_day = utc_time(sentence.fields[kTime]);
    if (track.open && of_day == track.epoch.of_day) {
        return;
    }
    finish_epoch(track, visit);
    const Fix latest = track.epoch.fix;
    track.epoch = {};
    track.epoch.of_day = of_day;
    track.epoch.stamp = track.stamp;
    track.epoch.fix.pdop = latest.pdop;
    track.epoch.fix.vdop = latest.vdop;
    track.open = true;
    track.placed = track.by_fix = false;
    track.day.reset();
}

bool set_place(TrackPoint& point, const Sentence& sentence, size_t first) {
    const auto place = sentence_place(sentence, first);
    if (place) {
        point.latitude = place->latitude;
        point.longitude = place->longitude;
    }
    return place.has_value();
}

// GGA, or GNS where no GGA comes: their fields are the same but that of the quality.
void take_fix(Track& track, const Sentence& sentence) {
    track.by_fix = true;
    track.placed = track.epoch.fix.quality.value_or(0) > 0 && set_place(track.epoch, sentence, kFixPlace);
    track.epoch.altitude = sentence_signed(sentence.fields[kFixAltitude]);
    track.epoch.geoid = sentence_signed(sentence.fields[sentence.type == "GGA" ? kGgaGeoid : kGnsGeoid]);
}

// Only a valid one tells a date: before, the chip sends whatever its clock says.
void take_rmc(Track& track, const Sentence& sentence) {
    if (sentence.fields[kRmcStatus] != "A") {
        return;
    }
    const auto day = utc_day(sentence.fields[kRmcDate]);
    if (day && track.epoch.of_day) {
        track.dated = *day + *track.epoch.of_day;
    }
    if (!track.by_fix) {
        track.placed = set_place(track.epoch, sentence, kRmcPlace);
    }
}

// The moment of "# 2026-11-21T15:16:20.000Z", whose line may end with a carriage return.
std::optional<Utc> read_stamp(std::string_view line) {
    return utc_of_iso(line.substr(2, line.find_last_not_of('\r') - 1));
}

// Whether a sentence says by its time which moment it is of. A position without a time is of a moment without
// one; what only goes with a position is then of the moment before.
bool tells_moment(const Sentence& sentence) {
    if (sentence.type == "GGA" || sentence.type == "GNS" || sentence.type == "RMC") {
        return true;
    }
    return (sentence.type == "GST" || sentence.type == "ZDA") && utc_time(sentence.fields[kTime]);
}

void take_sentence(Track& track, std::string_view line, const TrackVisitor& visit) {
    const Sentence sentence = sentence_split(line);
    if (tells_moment(sentence)) {
        enter_epoch(track, sentence, visit);
    }
    switch (nmea_take(track.epoch.fix, line)) {
    case SentenceKind::kFix:
        return take_fix(track, sentence);
    case SentenceKind::kRmc:
        return take_rmc(track, sentence);
    case SentenceKind::kZda:
        track.day = utc_day_of_zda(sentence);
        return;
    default:
        return;
    }
}

} // namespace

void track_line(Track& track, std::string_view line, const TrackVisitor& visit) {
    if (line.substr(0, 2) == "# ") {
        if (const auto stamp = read_stamp(line)) {
            track.stamp = stamp;
        }
    } else if (line.substr(0, 1) == "$") {
        const bool good = sentence_is_whole(line);
        ++(good ? track.sentences : track.refused);
        if (good) {
            take_sentence(track, line, visit);
        }
    }
}

void track_end(Track& track, const TrackVisitor& visit) {
    finish_epoch(track, visit);
    tell_waiting(track, visit);
}
