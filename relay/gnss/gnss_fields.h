// Fields of an NMEA sentence and the values in them.
#ifndef TAVOR_RELAY_GNSS_FIELDS_H
#define TAVOR_RELAY_GNSS_FIELDS_H

#include <array>
#include <chrono>
#include <optional>
#include <string_view>

inline constexpr size_t kGnssFieldsMax = 24; // of the sentences that are read

struct GnssFields {
    std::array<std::string_view, kGnssFieldsMax> field; // the first is the name, with its dollar sign
    size_t count = 0;
};

// Up to the checksum; further fields are left out.
GnssFields gnss_fields_split(std::string_view sentence);

// A decimal number that fills the whole text, of up to a million.
std::optional<double> gnss_fields_number(std::string_view text);

// A number of digits only.
std::optional<int> gnss_fields_count(std::string_view text);

// An angle dddmm.mmmm with its hemisphere, which may be N, S, E or W.
std::optional<double> gnss_fields_angle(std::string_view text, std::string_view hemisphere);

// hhmmss or hhmmss.sss.
std::optional<std::chrono::milliseconds> gnss_fields_time(std::string_view text);

// ddmmyy.
std::optional<std::chrono::sys_days> gnss_fields_date(std::string_view text);

#endif
