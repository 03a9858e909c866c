#include "gnss/gnss_fields.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

constexpr double kNumberMax = 1e6;
constexpr int kCentury = 2000; // of the two digits of a year
constexpr double kMinutesOfDegree = 60;
constexpr double kLatitudeMax = 90;
constexpr double kLongitudeMax = 180;

// Two digits at a place of the text, -1 when there are none.
int two_digits(std::string_view text, size_t at) {
    const auto digit = [&](size_t i) {
        return i < text.size() && text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1;
    };
    return digit(at) < 0 || digit(at + 1) < 0 ? -1 : digit(at) * 10 + digit(at + 1);
}

} // namespace

GnssFields gnss_fields_split(std::string_view sentence) {
    GnssFields fields;
    sentence = sentence.substr(0, sentence.find_first_of("*\r\n"));
    while (fields.count < kGnssFieldsMax) {
        const size_t comma = sentence.find(',');
        fields.field[fields.count++] = sentence.substr(0, comma);
        if (comma == std::string_view::npos) {
            break;
        }
        sentence.remove_prefix(comma + 1);
    }
    return fields;
}

std::optional<double> gnss_fields_number(std::string_view text) {
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    const bool good = result.ec == std::errc() && result.ptr == end && std::fabs(value) <= kNumberMax;
    return good ? std::optional(value) : std::nullopt;
}

std::optional<int> gnss_fields_count(std::string_view text) {
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool good = result.ec == std::errc() && result.ptr == end && value >= 0;
    return good ? std::optional(value) : std::nullopt;
}

std::optional<double> gnss_fields_angle(std::string_view text, std::string_view hemisphere) {
    const std::optional<double> value = gnss_fields_number(text);
    const bool latitude = hemisphere == "N" || hemisphere == "S";
    if (!value || *value < 0 || (!latitude && hemisphere != "E" && hemisphere != "W")) {
        return std::nullopt;
    }
    const double degrees = std::floor(*value / 100);
    const double minutes = *value - degrees * 100;
    const double angle = degrees + minutes / kMinutesOfDegree;
    if (minutes >= kMinutesOfDegree || angle > (latitude ? kLatitudeMax : kLongitudeMax)) {
        return std::nullopt;
    }
    return hemisphere == "S" || hemisphere == "W" ? -angle : angle;
}

std::optional<std::chrono::milliseconds> gnss_fields_time(std::string_view text) {
    using namespace std::chrono;
    const int hour = two_digits(text, 0);
    const int minute = two_digits(text, 2);
    const auto second = text.size() < 6 ? std::nullopt : gnss_fields_number(text.substr(4));
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || !second || *second < 0 || *second >= 61) {
        return std::nullopt;
    }
    return hours(hour) + minutes(minute) +
           milliseconds(static_cast<int64_t>(std::floor(*second * 1000 + 0.5)));
}

std::optional<std::chrono::sys_days> gnss_fields_date(std::string_view text) {
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
