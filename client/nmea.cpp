#include "client/nmea.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kDayS = 24 * 60 * 60;

// Numbers of the fields in their sentences.
constexpr size_t kTime = 1; // of RMC and ZDA
constexpr size_t kGgaQuality = 6, kGnsModes = 6, kSatellites = 7, kHdop = 8;
constexpr size_t kGsaPdop = 15, kGsaVdop = 17;
constexpr size_t kRmcSpeed = 7, kRmcCourse = 8, kRmcDate = 9;

// GGA and GNS differ in how they tell the quality.
SentenceKind take_fix(Fix& fix, const Sentence& sentence, const std::optional<int>& quality) {
    fix.quality = quality;
    fix.satellites = sentence_count(sentence.fields[kSatellites]);
    fix.hdop = sentence_number(sentence.fields[kHdop]);
    return SentenceKind::kFix;
}

void take_date(Fix& fix, const Sentence& sentence, const std::optional<std::chrono::sys_days>& day) {
    const auto time = utc_time(sentence.fields[kTime]);
    if (day && time) {
        fix.dated = *day + *time;
    }
}

} // namespace

SentenceKind nmea_take(Fix& fix, std::string_view text) {
    const Sentence sentence = sentence_split(text);
    if (sentence.type == "GGA") {
        fix.by_gga = true;
        return take_fix(fix, sentence, sentence_count(sentence.fields[kGgaQuality]));
    }
    if (sentence.type == "GNS" && !fix.by_gga) {
        return take_fix(fix, sentence, sentence_quality(sentence.fields[kGnsModes]));
    }
    if (sentence.type == "GSA") {
        fix.pdop = sentence_number(sentence.fields[kGsaPdop]);
        fix.vdop = sentence_number(sentence.fields[kGsaVdop]);
        return SentenceKind::kGsa;
    }
    if (sentence.type == "RMC") {
        fix.speed = sentence_speed(sentence.fields[kRmcSpeed]);
        fix.course = sentence_number(sentence.fields[kRmcCourse]);
        take_date(fix, sentence, utc_day(sentence.fields[kRmcDate]));
        return SentenceKind::kRmc;
    }
    if (sentence.type == "ZDA") {
        take_date(fix, sentence, utc_day_of_zda(sentence));
        return SentenceKind::kZda;
    }
    return SentenceKind::kOther;
}

std::optional<Utc> nmea_moment(const Fix& fix, const std::string& time) {
    const auto of_day = utc_time(time);
    if (!of_day || !fix.dated) {
        return std::nullopt;
    }
    return utc_nearest(*of_day, *fix.dated);
}

std::optional<double> nmea_age(const std::optional<Utc>& moment, std::chrono::system_clock::time_point now) {
    if (!moment) {
        return std::nullopt;
    }
    const double age_s = std::chrono::duration<double>(now - *moment).count();
    return std::fabs(age_s) > kDayS ? std::nullopt : std::optional(std::max(age_s, 0.0));
}

std::optional<double> nmea_age_undated(const std::string& time, std::chrono::system_clock::time_point now) {
    constexpr std::chrono::seconds kAheadMax{5}; // that the chip's clock may go before this host's
    Fix today;
    today.dated = std::chrono::floor<std::chrono::milliseconds>(now);
    const auto moment = nmea_moment(today, time);
    return moment && *moment <= now + kAheadMax ? nmea_age(moment, now) : std::nullopt;
}
