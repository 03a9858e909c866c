#include "client/nmea.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace {

using std::chrono::milliseconds;

constexpr size_t kFieldsMax = 20;                  // of the sentences that are read
constexpr double kMetresPerSecond = 1852.0 / 3600; // of a knot
constexpr double kNumberMax = 1e6;
constexpr size_t kTypeSize = 6; // "$", two letters of the talker and three of the type
constexpr std::chrono::hours kHalfDay{12};
constexpr double kDayS = 24 * 60 * 60;
constexpr int kCentury = 2000; // of the two digits of a year

// Numbers of the fields in their sentences.
constexpr size_t kGgaQuality = 6, kGgaSatellites = 7, kGgaHdop = 8;
constexpr size_t kGsaPdop = 15, kGsaVdop = 17;
constexpr size_t kRmcTime = 1, kRmcSpeed = 7, kRmcCourse = 8, kRmcDate = 9;

using Fields = std::array<std::string_view, kFieldsMax>;

Fields split(std::string_view sentence) {
    Fields fields;
    sentence = sentence.substr(0, sentence.find('*'));
    for (std::string_view& field : fields) {
        const size_t comma = sentence.find(',');
        field = sentence.substr(0, comma);
        if (comma == std::string_view::npos) {
            break;
        }
        sentence.remove_prefix(comma + 1);
    }
    return fields;
}

// A number from 0 to kNumberMax that fills the whole text.
std::optional<double> number(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool good =
        error == std::errc() && end == text.data() + text.size() && value >= 0 && value <= kNumberMax;
    return good ? std::optional(value) : std::nullopt;
}

std::optional<int> count(std::string_view text) {
    const auto value = number(text);
    return value && *value == std::floor(*value) ? std::optional(static_cast<int>(*value)) : std::nullopt;
}

// Two digits at a place of the text, -1 when there are none.
int two_digits(std::string_view text, size_t at) {
    const auto digit = [&](size_t i) {
        return i < text.size() && text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1;
    };
    return digit(at) < 0 || digit(at + 1) < 0 ? -1 : digit(at) * 10 + digit(at + 1);
}

// Of hhmmss or hhmmss.sss.
std::optional<milliseconds> time_of_day(std::string_view text) {
    using namespace std::chrono;
    const int hour = two_digits(text, 0);
    const int minute = two_digits(text, 2);
    const auto second = text.size() < 6 ? std::nullopt : number(text.substr(4));
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || !second || *second >= 61) {
        return std::nullopt;
    }
    return hours(hour) + minutes(minute) +
           milliseconds(static_cast<int64_t>(std::floor(*second * 1000 + 0.5)));
}

// Of ddmmyy.
std::optional<std::chrono::sys_days> day_of(std::string_view text) {
    using namespace std::chrono;
    const int day_number = two_digits(text, 0);
    const int month_number = two_digits(text, 2);
    const int year_number = two_digits(text, 4);
    if (text.size() != 6 || day_number < 0 || month_number < 0 || year_number < 0) {
        return std::nullopt;
    }
    const year_month_day date(year(kCentury + year_number), month(static_cast<unsigned>(month_number)),
                              day(static_cast<unsigned>(day_number)));
    return date.ok() ? std::optional(sys_days(date)) : std::nullopt;
}

void take_rmc(Fix& fix, const Fields& fields) {
    const auto knots = number(fields[kRmcSpeed]);
    fix.speed = knots ? std::optional(*knots * kMetresPerSecond) : std::nullopt;
    fix.course = number(fields[kRmcCourse]);
    const auto day = day_of(fields[kRmcDate]);
    const auto time = time_of_day(fields[kRmcTime]);
    if (day && time) {
        fix.dated = *day + *time;
    }
}

} // namespace

SentenceKind nmea_take(Fix& fix, std::string_view sentence) {
    const std::string_view type = sentence.size() > kTypeSize ? sentence.substr(3, 3) : "";
    const Fields fields = split(sentence);
    if (type == "GGA") {
        fix.quality = count(fields[kGgaQuality]);
        fix.satellites = count(fields[kGgaSatellites]);
        fix.hdop = number(fields[kGgaHdop]);
        return SentenceKind::kGga;
    }
    if (type == "GSA") {
        fix.pdop = number(fields[kGsaPdop]);
        fix.vdop = number(fields[kGsaVdop]);
        return SentenceKind::kGsa;
    }
    if (type == "RMC") {
        take_rmc(fix, fields);
        return SentenceKind::kRmc;
    }
    return SentenceKind::kOther;
}

std::optional<Utc> nmea_moment(const Fix& fix, const std::string& time) {
    const auto of_day = time_of_day(time);
    if (!of_day || !fix.dated) {
        return std::nullopt;
    }
    const Utc moment = std::chrono::floor<std::chrono::days>(*fix.dated) + *of_day;
    if (moment - *fix.dated > kHalfDay) {
        return moment - std::chrono::days(1);
    }
    return *fix.dated - moment > kHalfDay ? moment + std::chrono::days(1) : moment;
}

std::optional<double> nmea_age(const std::optional<Utc>& moment, std::chrono::system_clock::time_point now) {
    if (!moment) {
        return std::nullopt;
    }
    const double age_s = std::chrono::duration<double>(now - *moment).count();
    return std::fabs(age_s) > kDayS ? std::nullopt : std::optional(std::max(age_s, 0.0));
}

std::string nmea_iso(Utc moment) {
    const auto day = std::chrono::floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(moment - day);
    std::array<char, 48> text = {};
    snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
             static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
             static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text.data();
}
