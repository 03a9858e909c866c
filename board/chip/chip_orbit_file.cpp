#include "chip/chip_orbit_file.h"

namespace {

constexpr uint32_t kGpsSatellites = 32;
constexpr uint32_t kGlonassSatellites = 24;
constexpr uint32_t kHourMask = 0xFFFFFF;
constexpr uint32_t kNumberShift = 24;
constexpr uint32_t kMaskBits = 32;
constexpr size_t kFirstMaskWord = 1; // of a header
constexpr size_t kSecondMaskWord = 4;
constexpr uint64_t kUsPerSecond = 1000000;
constexpr uint64_t kGpsEpochS = 315964800; // 1980-01-06 00:00 UTC, in seconds since 1970

struct Masks {
    uint32_t first;  // satellites 1 to 32
    uint32_t second; // 33 to 64
};

uint32_t mix(uint32_t value) {
    value = (value ^ (value >> 16)) * 0x7feb352dU;
    value = (value ^ (value >> 15)) * 0x846ca68bU;
    return value ^ (value >> 16);
}

uint32_t made_up(uint32_t seed, ChipConstellation constellation, uint32_t satellite, uint32_t hour,
                 size_t word) {
    uint32_t value = mix(seed + 1);
    value = mix(value ^ (static_cast<uint32_t>(constellation) << 16 | satellite));
    value = mix(value ^ hour);
    value = mix(value ^ static_cast<uint32_t>(word));
    return value >> (mix(value) % kMaskBits); // words of every length
}

uint32_t bit_of(uint32_t satellite) {
    return uint32_t{1} << ((satellite - 1) % kMaskBits);
}

// Galileo has satellites up to 36, BeiDou up to 63; of the latter the last nine are numbered apart.
Masks masks_of(ChipConstellation constellation, uint32_t seed) {
    const uint32_t first = mix(seed ^ 0x11) | bit_of(1);
    const uint32_t second = mix(seed ^ 0x22);
    if (constellation == ChipConstellation::galileo) {
        return {first, (second & 0xF) | bit_of(36)};
    }
    return {first, (second & 0x7FFFFFFF) | bit_of(54) | bit_of(55) | bit_of(63)};
}

// The number of a satellite in the files.
uint32_t file_number(ChipConstellation constellation, uint32_t satellite) {
    switch (constellation) {
    case ChipConstellation::glonass:
        return satellite + 64;
    case ChipConstellation::galileo:
        return satellite + 100;
    case ChipConstellation::beidou:
        return satellite > 54 ? satellite + 135 : satellite + 200;
    default:
        return satellite;
    }
}

ChipOrbitRecord made_up_record(ChipConstellation constellation, uint32_t number, uint32_t hour,
                               uint32_t seed) {
    ChipOrbitRecord record = {};
    record[0] = number << kNumberShift | (hour & kHourMask);
    for (size_t i = 1; i < record.size(); ++i) {
        record[i] = made_up(seed, constellation, number, hour, i);
    }
    return record;
}

void append(std::string& file, const ChipOrbitRecord& record) {
    for (const uint32_t word : record) {
        for (uint32_t shift = 0; shift < 32; shift += 8) {
            file += static_cast<char>(word >> shift & 0xFF);
        }
    }
}

void append_segment(std::string& file, ChipConstellation constellation, uint32_t hour, uint32_t seed) {
    for (const uint32_t satellite : chip_orbit_satellites(constellation, seed)) {
        append(file, chip_orbit_record(constellation, satellite, hour, seed));
    }
}

std::vector<ChipConstellation> constellations_of(ChipOrbitFile file) {
    switch (file) {
    case ChipOrbitFile::gps_glonass:
        return {ChipConstellation::gps, ChipConstellation::glonass};
    case ChipOrbitFile::gps:
        return {ChipConstellation::gps};
    case ChipOrbitFile::beidou:
        return {ChipConstellation::beidou};
    default:
        return {ChipConstellation::galileo};
    }
}

} // namespace

const char* chip_constellation_name(ChipConstellation constellation) {
    constexpr std::array<const char*, kChipConstellations> kNames = {"gps", "glonass", "galileo", "beidou"};
    return kNames[static_cast<size_t>(constellation)];
}

bool chip_orbit_has_header(ChipConstellation constellation) {
    return constellation == ChipConstellation::galileo || constellation == ChipConstellation::beidou;
}

std::vector<uint32_t> chip_orbit_satellites(ChipConstellation constellation, uint32_t seed) {
    std::vector<uint32_t> satellites;
    if (!chip_orbit_has_header(constellation)) {
        const uint32_t count = constellation == ChipConstellation::gps ? kGpsSatellites : kGlonassSatellites;
        for (uint32_t satellite = 1; satellite <= count; ++satellite) {
            satellites.push_back(satellite);
        }
        return satellites;
    }
    const Masks masks = masks_of(constellation, seed);
    for (uint32_t satellite = 1; satellite <= 2 * kMaskBits; ++satellite) {
        if (((satellite <= kMaskBits ? masks.first : masks.second) & bit_of(satellite)) != 0) {
            satellites.push_back(satellite);
        }
    }
    return satellites;
}

ChipOrbitRecord chip_orbit_record(ChipConstellation constellation, uint32_t satellite, uint32_t hour,
                                  uint32_t seed) {
    return made_up_record(constellation, file_number(constellation, satellite), hour, seed);
}

ChipOrbitRecord chip_orbit_header(ChipConstellation constellation, uint32_t hour, uint32_t seed) {
    ChipOrbitRecord header =
        made_up_record(constellation, chip_orbit_header_number(constellation), hour, seed);
    const Masks masks = masks_of(constellation, seed);
    header[kFirstMaskWord] = masks.first;
    header[kSecondMaskWord] = masks.second;
    return header;
}

uint32_t chip_orbit_header_number(ChipConstellation constellation) {
    return constellation == ChipConstellation::galileo ? 254 : 255;
}

std::string chip_orbit_file(ChipOrbitFile file, uint32_t hour, uint32_t seed) {
    const std::vector<ChipConstellation> constellations = constellations_of(file);
    std::string content;
    if (chip_orbit_has_header(constellations[0])) {
        append(content, chip_orbit_header(constellations[0], hour, seed));
    }
    for (uint32_t segment = 0; segment < kChipSegments; ++segment) {
        for (const ChipConstellation constellation : constellations) {
            append_segment(content, constellation, hour + segment * kChipSegmentHours, seed);
        }
    }
    return content;
}

uint64_t chip_gps_seconds(uint64_t utc_us) {
    return utc_us / kUsPerSecond - kGpsEpochS;
}
