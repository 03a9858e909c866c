// Predicted orbits as the assistance server hands them out and as the chip expects them: records of 72 bytes,
// each for one satellite and six hours. The content is made up, always the same for seed, satellite and hour.
#ifndef TAVOR_BOARD_CHIP_ORBIT_FILE_H
#define TAVOR_BOARD_CHIP_ORBIT_FILE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// As the chip numbers them in its requests.
enum class ChipConstellation : uint8_t { gps, glonass, galileo, beidou };

inline constexpr size_t kChipConstellations = 4;
inline constexpr size_t kChipOrbitWords = 18; // of a record
inline constexpr uint32_t kChipSegmentHours = 6;
inline constexpr uint32_t kChipSegments = 12; // of a file

using ChipOrbitRecord = std::array<uint32_t, kChipOrbitWords>;

enum class ChipOrbitFile : uint8_t { gps_glonass, gps, beidou, galileo };

inline constexpr size_t kChipOrbitFiles = 4;

// Name of a constellation: "gps" and so on.
const char* chip_constellation_name(ChipConstellation constellation);

// Satellites of a constellation in the order of their records, numbered from 1 as the chip does.
std::vector<uint32_t> chip_orbit_satellites(ChipConstellation constellation, uint32_t seed);

// Whether the constellation's files begin with a header, which lists the satellites.
bool chip_orbit_has_header(ChipConstellation constellation);

// The record of a satellite for six hours from this GPS hour on.
ChipOrbitRecord chip_orbit_record(ChipConstellation constellation, uint32_t satellite, uint32_t hour,
                                  uint32_t seed);

// The header of a file that starts at this GPS hour.
ChipOrbitRecord chip_orbit_header(ChipConstellation constellation, uint32_t hour, uint32_t seed);

// The number that the chip wants to be told for a header in place of a satellite's.
uint32_t chip_orbit_header_number(ChipConstellation constellation);

// A whole file that starts at this GPS hour.
std::string chip_orbit_file(ChipOrbitFile file, uint32_t hour, uint32_t seed);

// Seconds from 1980-01-06 00:00 UTC on, leap seconds left out.
uint64_t chip_gps_seconds(uint64_t utc_us);

#endif
