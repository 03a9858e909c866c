#include "client/sentence.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

using std::chrono::milliseconds;

constexpr double kNumberMax = 1e6;
constexpr size_t kTypeSize = 6; // "$", two letters of the talker and three of the type
constexpr int kCentury = 2000;  // of the two digits of a year
constexpr size_t kSumSize = 2;

std::string_view without_line_end(std::string_view text) {
    return text.substr(0, text.find_last_not_of("\r\n") + 1);
}

// Two digits at a place of the text, -1 when there are none.
int two_digits(std::string_view text, size_t at) {
    const auto digit = [&](size_t i) {
        return i < text.size() && text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1;
    };
    return digit(at) < 0 || digit(at + 1) < 0 ? -1 : digit(at) * 10 + digit(at + 1);
}

} // namespace

Sentence sentence_split(std::string_view text) {
    Sentence sentence;
    if (text.size() > kTypeSize && text[0] == '$') {
        sentence.talker = text.substr(1, 2);
        sentence.type = text.substr(3, 3);
    }
    text = without_line_end(text.substr(0, text.find('*')));
    for (std::string_view& field : sentence.fields) {
        const size_t comma = text.find(',');
        field = text.substr(0, comma);
        ++sentence.count;
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    return sentence;
}

bool sentence_is_whole(std::string_view text) {
    text = without_line_end(text);
    const size_t star = text.rfind('*');
    if (text.empty() || text[0] != '$' || star == std::string_view::npos ||
        text.size() - star - 1 != kSumSize) {
        return false;
    }
    unsigned sum = 0;
    for (const char byte : text.substr(1, star - 1)) {
        sum ^= static_cast<unsigned char>(byte);
    }
    unsigned told = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data() + star + 1, end, told, 16);
    return result.ec == std::errc() && result.ptr == end && told == sum;
}

std::optional<double> sentence_signed(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool good =
        error == std::errc() && end == text.data() + text.size() && std::fabs(value) <= kNumberMax;
    return good ? std::optional(value) : std::nullopt;
}

std::optional<double> sentence_number(std::string_view text) {
    const auto value = sentence_signed(text);
    return value && *value >= 0 ? value : std::nullopt;
}

std::optional<int> sentence_count(std::string_view text) {
    const auto value = sentence_number(text);
    return value && *value == std::floor(*value) ? std::optional(static_cast<int>(*value)) : std::nullopt;
}

std::optional<milliseconds> sentence_time(std::string_view text) {
    using namespace std::chrono;
    const int hour = two_digits(text, 0);
    const int minute = two_digits(text, 2);
    const auto second = text.size() < 6 ? std::nullopt : sentence_number(text.substr(4));
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || !second || *second >= 61) {
        return std::nullopt;
    }
    return hours(hour) + minutes(minute) +
           milliseconds(static_cast<int64_t>(std::floor(*second * 1000 + 0.5)));
}

std::optional<std::chrono::sys_days> sentence_day(std::string_view text) {
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

std::optional<double> sentence_angle(std::string_view text, std::string_view hemisphere, double most) {
    const auto value = sentence_number(text);
    const bool negative = hemisphere == "S" || hemisphere == "W";
    if (!value || (!negative && hemisphere != "N" && hemisphere != "E")) {
        return std::nullopt;
    }
    const double degrees = std::floor(*value / 100);
    const double minutes = *value - degrees * 100;
    const double angle = degrees + minutes / 60;
    if (minutes >= 60 || angle > most) {
        return std::nullopt;
    }
    return negative ? -angle : angle;
}
