#include "sentence/utc.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace {

using std::chrono::milliseconds;

constexpr int kCentury = 2000; // of the two digits of a year
constexpr std::chrono::hours kHalfDay{12};
constexpr size_t kZdaDay = 2, kZdaMonth = 3, kZdaYear = 4;
constexpr std::string_view kIsoShape = "dddd-dd-ddTdd:dd:dd.dddZ"; // d: a digit

// The number of this many digits at a place of the text, -1 when there are not.
int digits(std::string_view text, size_t at, size_t count) {
    int value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (i >= text.size() || text[i] < '0' || text[i] > '9') {
            return -1;
        }
        value = 10 * value + (text[i] - '0');
    }
    return value;
}

std::optional<milliseconds> time_of(int hour, int minute, double second) {
    using namespace std::chrono;
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second >= 61) {
        return std::nullopt;
    }
    return hours(hour) + minutes(minute) +
           milliseconds(static_cast<int64_t>(std::floor(second * 1000 + 0.5)));
}

std::optional<std::chrono::sys_days> day_of(int year, int month, int day) {
    if (year < 0 || month < 0 || day < 0) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date(std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day)));
    return date.ok() ? std::optional(std::chrono::sys_days(date)) : std::nullopt;
}

bool has_iso_shape(std::string_view text) {
    bool same = text.size() == kIsoShape.size();
    for (size_t i = 0; same && i < text.size(); ++i) {
        same = kIsoShape[i] == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == kIsoShape[i];
    }
    return same;
}

} // namespace

std::optional<milliseconds> utc_time(std::string_view text) {
    const bool whole = digits(text, 4, 2) >= 0 && (text.size() == 6 || text[6] == '.');
    const auto second = whole ? sentence_number(text.substr(4)) : std::nullopt;
    return time_of(digits(text, 0, 2), digits(text, 2, 2), second.value_or(-1));
}

std::optional<std::chrono::sys_days> utc_day(std::string_view text) {
    const int year = digits(text, 4, 2);
    return day_of(text.size() == 6 && year >= 0 ? kCentury + year : -1, digits(text, 2, 2),
                  digits(text, 0, 2));
}

std::optional<std::chrono::sys_days> utc_day_of_zda(const Sentence& zda) {
    const auto all = [&](size_t field, size_t count) {
        return zda.fields.at(field).size() == count ? digits(zda.fields.at(field), 0, count) : -1;
    };
    return day_of(all(kZdaYear, 4), all(kZdaMonth, 2), all(kZdaDay, 2));
}

Utc utc_nearest(milliseconds of_day, Utc other) {
    const Utc moment = std::chrono::floor<std::chrono::days>(other) + of_day;
    if (moment - other > kHalfDay) {
        return moment - std::chrono::days(1);
    }
    return other - moment > kHalfDay ? moment + std::chrono::days(1) : moment;
}

std::string utc_iso(Utc moment) {
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

std::optional<Utc> utc_of_iso(std::string_view text) {
    if (!has_iso_shape(text)) {
        return std::nullopt;
    }
    const auto day = day_of(digits(text, 0, 4), digits(text, 5, 2), digits(text, 8, 2));
    const auto time = time_of(digits(text, 11, 2), digits(text, 14, 2), digits(text, 17, 2));
    return day && time ? std::optional<Utc>(*day + *time + milliseconds(digits(text, 20, 3))) : std::nullopt;
}
