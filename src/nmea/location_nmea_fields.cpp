#include "nmea/location_nmea_fields.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace {

constexpr int32_t kFirstField = 5; // after '$' and four letters
constexpr int32_t kHexLetterOffset = 'A' - 10;

bool is_letter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Kept: a lower-case letter counts as more than 15. None gets here from a sentence with room for all its
// fields: the framing takes upper-case digits only.
int32_t hex_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    return is_letter(c) ? c - kHexLetterOffset : 0;
}

} // namespace

void location_nmea_split_fields(const char* sentence, int32_t length, NmeaFields* out) {
    memset(out, 0, sizeof *out);
    int32_t at = 0; // in the current field
    for (int32_t i = kFirstField; i < length; ++i) {
        const char c = sentence[i];
        if (c == ',' || c == '*') {
            if (out->count == kNmeaFieldsMax - 1) {
                break;
            }
            ++out->count;
            at = 0;
        } else if (at < kNmeaFieldSize - 1) {
            out->field[out->count][at++] = c;
        }
    }
    const char* last = out->field[out->count];
    out->checksum = hex_value(last[0]) * 16 + hex_value(last[1]);
}

bool location_nmea_contains(const char* sentence, uint32_t length, const char* text) {
    return std::string_view(sentence, length).find(text) != std::string_view::npos;
}

int32_t location_nmea_number(const char* field) {
    using Limits = std::numeric_limits<int32_t>;
    const long value = strtol(field, nullptr, 10); // atoi is undefined out of range
    return static_cast<int32_t>(std::clamp<long>(value, Limits::min(), Limits::max()));
}
