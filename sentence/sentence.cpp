#include "sentence/sentence.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

constexpr double kNumberMax = 1e6;
constexpr size_t kNameSize = 6; // "$", two letters of the talker and three of the type
constexpr size_t kSumSize = 2;
constexpr double kMetresPerSecond = 1852.0 / 3600; // of a knot
constexpr double kMinutesOfDegree = 60;

// A mode of GNS, the worst first: none, simulated, by hand, estimated, autonomous, differential, precise,
// float and fixed RTK.
struct ModeRow {
    char letter;
    int quality; // of GGA
};
constexpr ModeRow kModes[] = {{'N', 0}, {'S', 8}, {'M', 7}, {'E', 6}, {'A', 1},
                              {'D', 2}, {'P', 3}, {'F', 5}, {'R', 4}};

std::string_view without_line_end(std::string_view text) {
    return text.substr(0, text.find_last_not_of("\r\n") + 1);
}

bool ends_field(char byte) {
    return byte == ',' || byte == '*' || byte == '\r' || byte == '\n';
}

bool is_negative(std::string_view text) {
    return !text.empty() && text[0] == '-'; // also of a zero
}

// Degrees of dddmm.mmm, at most this many; negative in the second of two hemispheres.
std::optional<double> angle(std::string_view text, std::string_view hemisphere, std::string_view hemispheres,
                            double most) {
    const auto value = sentence_number(text);
    if (!value || hemisphere.size() != 1 || hemispheres.find(hemisphere) == std::string_view::npos) {
        return std::nullopt;
    }
    const double degrees = std::floor(*value / 100);
    const double minutes = *value - degrees * 100;
    const double size = degrees + minutes / kMinutesOfDegree;
    if (minutes >= kMinutesOfDegree || size > most) {
        return std::nullopt;
    }
    return hemisphere[0] == hemispheres[1] ? -size : size;
}

} // namespace

Sentence sentence_split(std::string_view text) {
    Sentence sentence;
    size_t begin = 0;
    bool more = true;
    while (more && sentence.count < kSentenceFields) {
        size_t end = begin;
        while (end < text.size() && !ends_field(text[end])) {
            ++end;
        }
        sentence.fields.at(sentence.count++) = text.substr(begin, end - begin);
        more = end < text.size() && text[end] == ',';
        begin = end + 1;
    }
    const std::string_view name = sentence.fields[0];
    if (sentence.count > 1 && name.size() == kNameSize && name[0] == '$') {
        sentence.talker = name.substr(1, 2);
        sentence.type = name.substr(3);
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
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    const bool good = result.ec == std::errc() && result.ptr == end && std::fabs(value) <= kNumberMax;
    return good ? std::optional(value) : std::nullopt;
}

std::optional<double> sentence_number(std::string_view text) {
    return is_negative(text) ? std::nullopt : sentence_signed(text);
}

std::optional<int> sentence_count(std::string_view text) {
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool good = result.ec == std::errc() && result.ptr == end && value <= kNumberMax;
    return good && !is_negative(text) ? std::optional(value) : std::nullopt;
}

std::optional<int> sentence_quality(std::string_view modes) {
    std::optional<int> best;
    for (const ModeRow& row : kModes) {
        best = modes.find(row.letter) != std::string_view::npos ? row.quality : best;
    }
    return best;
}

std::optional<double> sentence_speed(std::string_view knots) {
    const auto value = sentence_number(knots);
    return value ? std::optional(*value * kMetresPerSecond) : std::nullopt;
}

std::optional<SentencePlace> sentence_place(const Sentence& sentence, size_t first) {
    const auto latitude = angle(sentence.fields.at(first), sentence.fields.at(first + 1), "NS", 90);
    const auto longitude = angle(sentence.fields.at(first + 2), sentence.fields.at(first + 3), "EW", 180);
    return latitude && longitude ? std::optional(SentencePlace{*latitude, *longitude}) : std::nullopt;
}
