#include "client/records.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace {

using RecordBytes = std::array<char, sizeof(tavor_location_record)>;

constexpr size_t kHeightOffset = offsetof(tavor_location_record, height);
constexpr size_t kHeightSize = sizeof(tavor_location_record::height);
constexpr size_t kHeightDecimals = 6;

static_assert(sizeof(tavor_location_record) == 94);
static_assert(sizeof(tavor_response) == 520);

struct Height {
    std::optional<double> value;
    size_t end; // offset in the record past the text and its NUL
};

// Text of a field, up to its NUL or its full size.
std::string_view field(const RecordBytes& bytes, size_t offset, size_t size) {
    const std::string_view whole(bytes.data() + offset, size);
    return whole.substr(0, whole.find('\0'));
}

// A finite number that fills the whole text.
std::optional<double> number(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// True for an optional minus, digits, a point and exactly six digits.
bool is_whole_height(std::string_view text) {
    text.remove_prefix(text.substr(0, 1) == "-" ? 1 : 0);
    const size_t point = text.find('.');
    if (point == std::string_view::npos || point == 0 || text.size() - point - 1 != kHeightDecimals) {
        return false;
    }
    return std::all_of(text.begin(), text.begin() + static_cast<ptrdiff_t>(point), is_digit) &&
           std::all_of(text.begin() + static_cast<ptrdiff_t>(point) + 1, text.end(), is_digit);
}

Height parse_height(const RecordBytes& bytes) {
    const std::string_view run = field(bytes, kHeightOffset, bytes.size() - kHeightOffset);
    if (run.size() >= kHeightSize && is_whole_height(run)) {
        return {number(run), kHeightOffset + run.size() + 1};
    }
    const std::string_view own = run.substr(0, kHeightSize);
    const bool cut_before_point = own.size() == kHeightSize && own.find('.') == std::string_view::npos;
    return {cut_before_point ? std::nullopt : number(own), kHeightOffset + kHeightSize};
}

// Payload up to its last byte that is not zero: a sentence keeps a NUL in its middle.
std::string payload_text(const tavor_response& response) {
    const auto* begin = reinterpret_cast<const char*>(response.payload);
    size_t length = sizeof response.payload;
    while (length > 0 && begin[length - 1] == '\0') {
        --length;
    }
    return {begin, length};
}

RecordKind kind_of(uint32_t code, const std::string& text) {
    switch (code) {
    case TAVOR_CODE_CHIP:
        return text.empty() ? RecordKind::kResult : RecordKind::kChip;
    case TAVOR_CODE_NMEA:
        return text.substr(0, 1) == "$" ? RecordKind::kNmea : RecordKind::kBanner;
    case TAVOR_CODE_POSITION:
        return RecordKind::kPosition;
    default:
        return code < TAVOR_CODE_POSITION ? RecordKind::kResult : RecordKind::kUnknown;
    }
}

} // namespace

Record record_parse(const tavor_response& response) {
    Record record;
    record.code = response.code;
    record.value = response.value;
    std::string text = payload_text(response);
    record.kind = kind_of(response.code, text);
    if (record.kind == RecordKind::kPosition) {
        tavor_location_record location = {};
        memcpy(&location, response.payload, sizeof location);
        record.position = record_position(location);
    } else if (record.kind != RecordKind::kResult && record.kind != RecordKind::kUnknown) {
        record.text = std::move(text);
    }
    return record;
}

Position record_position(const tavor_location_record& record) {
    RecordBytes bytes = {};
    memcpy(bytes.data(), &record, bytes.size());
    const Height height = parse_height(bytes);
    const auto number_at = [&](size_t offset, size_t size) {
        const bool under_height = offset > kHeightOffset && offset < height.end;
        return under_height ? std::nullopt : number(field(bytes, offset, size));
    };

    Position position;
    if (const std::string_view utc = field(bytes, offsetof(tavor_location_record, utc), sizeof record.utc);
        !utc.empty()) {
        position.utc = std::string(utc);
    }
    position.latitude = number_at(offsetof(tavor_location_record, latitude), sizeof record.latitude);
    position.longitude = number_at(offsetof(tavor_location_record, longitude), sizeof record.longitude);
    position.height = height.value;
    position.majorAxis = number_at(offsetof(tavor_location_record, majorAxis), sizeof record.majorAxis);
    position.minorAxis = number_at(offsetof(tavor_location_record, minorAxis), sizeof record.minorAxis);
    position.orientation = number_at(offsetof(tavor_location_record, orientation), sizeof record.orientation);
    position.verticalUncertainty =
        number_at(offsetof(tavor_location_record, verticalUncertainty), sizeof record.verticalUncertainty);
    return position;
}

bool record_ok(const Record& record) {
    return record.value == 0;
}
