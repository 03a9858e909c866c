#include "chip/chip_orbit.h"

#include "chip/chip_sentence.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr uint64_t kRepeatUs = 5000000; // without an answer, or with a bad one
constexpr uint64_t kQuietUs = 2000000;  // an answer has begun by then, and pauses no longer
constexpr uint64_t kSecondsPerHour = 3600;
constexpr uint64_t kSecondsPerWeek = 604800;
constexpr size_t kFields = 3 + kChipOrbitWords; // number, constellation, satellite, words
constexpr size_t kFirstWordField = 3;
constexpr uint32_t kHourMask = 0xFFFFFF;
constexpr uint32_t kFileHours = kChipSegments * kChipSegmentHours;

// What a record has to be.
struct Expected {
    uint32_t satellite;
    ChipOrbitRecord words;
};

std::string hex(uint32_t word) {
    char text[16];
    snprintf(text, sizeof text, "%X", word);
    return text;
}

uint32_t hour_of(const std::string& word) {
    return static_cast<uint32_t>(strtoul(word.c_str(), nullptr, 16)) & kHourMask;
}

size_t records_of(ChipConstellation constellation, uint32_t seed) {
    return chip_orbit_satellites(constellation, seed).size() + (chip_orbit_has_header(constellation) ? 1 : 0);
}

// The record number index of an answer.
Expected expected(ChipConstellation constellation, size_t index, uint32_t hour, uint32_t seed) {
    const bool has_header = chip_orbit_has_header(constellation);
    if (has_header && index == 0) {
        return {chip_orbit_header_number(constellation), chip_orbit_header(constellation, hour, seed)};
    }
    const uint32_t satellite = chip_orbit_satellites(constellation, seed)[index - (has_header ? 1 : 0)];
    return {satellite, chip_orbit_record(constellation, satellite, hour, seed)};
}

bool covers(uint32_t hour, uint32_t hours, uint32_t moment) {
    return hour <= moment && moment - hour < hours;
}

// What is wrong with a record, empty when nothing is. Keeps the hour of the first one of a segment.
std::string record_error(ChipConstellation constellation, ChipOrbitProgress& progress,
                         const std::vector<std::string>& fields, uint32_t seed) {
    const bool is_header = chip_orbit_has_header(constellation) && progress.received == 0;
    const size_t first = chip_orbit_has_header(constellation) ? 1 : 0;
    const uint32_t hour = hour_of(fields[kFirstWordField]);
    if (is_header || progress.received == first) {
        progress.hour = hour;
    }
    const uint32_t hours = is_header ? kFileHours : kChipSegmentHours;
    if (!covers(progress.hour, hours, progress.asked_hour)) {
        return "of hour " + std::to_string(progress.hour) + ", asked for " +
               std::to_string(progress.asked_hour);
    }
    const Expected due = expected(constellation, progress.received, progress.hour, seed);
    if (fields[2] != hex(due.satellite)) {
        return "satellite " + fields[2] + ", not " + hex(due.satellite);
    }
    for (size_t i = 0; i < kChipOrbitWords; ++i) {
        if (fields[kFirstWordField + i] != hex(due.words[i])) {
            return "word " + std::to_string(i) + " is " + fields[kFirstWordField + i] + ", not " +
                   hex(due.words[i]);
        }
    }
    return "";
}

void judge(ChipAidingStatus& status, ChipOrbitProgress& progress) {
    const bool good = progress.error.empty();
    ++(good ? status.good : status.bad);
    status.verdict = good ? "good" : progress.error;
    progress.known = progress.known || good;
    progress.received = 0;
    progress.error.clear();
}

void ask(const ChipOrbitParts& chip, size_t number, uint64_t now_us) {
    const auto constellation = static_cast<ChipConstellation>(number);
    ChipOrbitProgress& progress = chip.orbits.of[number];
    ChipAidingStatus& status = chip.status.aiding_orbits[number];
    if (progress.received > 0) { // the answer before broke off
        if (progress.error.empty()) {
            progress.error = std::to_string(progress.received) + " of " +
                             std::to_string(records_of(constellation, chip.options.seed)) + " records";
        }
        judge(status, progress);
    }
    const uint64_t gps = chip_gps_seconds(chip_utc_us(chip.options, now_us));
    progress.asked_hour = static_cast<uint32_t>(gps / kSecondsPerHour);
    progress.due_us = now_us + kRepeatUs;
    chip.orbits.next_request_us = now_us + kQuietUs;
    ++status.requests;
    chip_fifo_offer(chip.transmit, chip_sentence("PZUL010,0," + std::to_string(number) + "," +
                                                 std::to_string(gps / kSecondsPerWeek) + "," +
                                                 std::to_string(gps % kSecondsPerWeek)));
}

// The constellation of a record; none: -1.
int constellation_of(const std::vector<std::string>& fields) {
    const bool is_one = fields.size() == kFields && fields[1].size() == 1 && fields[1][0] >= '0' &&
                        fields[1][0] < static_cast<char>('0' + kChipConstellations);
    return is_one ? fields[1][0] - '0' : -1;
}

} // namespace

void chip_orbit_boot(ChipOrbitState& orbits, uint64_t now_us) {
    orbits = {};
    orbits.next_request_us = now_us;
}

void chip_orbit_run(const ChipOrbitParts& chip, uint64_t now_us) {
    if (!chip.options.orbit_requests || now_us < chip.orbits.next_request_us) {
        return;
    }
    for (size_t i = 0; i < kChipConstellations; ++i) {
        if (!chip.orbits.of[i].known && now_us >= chip.orbits.of[i].due_us) {
            return ask(chip, i, now_us);
        }
    }
}

bool chip_orbit_answer(const ChipOrbitParts& chip, const std::vector<std::string>& fields, uint64_t now_us) {
    const int number = constellation_of(fields);
    if (number < 0 || chip.orbits.of[static_cast<size_t>(number)].asked_hour == 0) {
        ++chip.status.orbits_stray;
        return false;
    }
    const auto constellation = static_cast<ChipConstellation>(number);
    ChipOrbitProgress& progress = chip.orbits.of[static_cast<size_t>(number)];
    const std::string error = record_error(constellation, progress, fields, chip.options.seed);
    ++progress.received;
    if (progress.error.empty() && !error.empty()) {
        progress.error = "record " + std::to_string(progress.received) + ": " + error;
    }
    progress.due_us = now_us + kRepeatUs;
    chip.orbits.next_request_us = now_us + kQuietUs;
    if (progress.received == records_of(constellation, chip.options.seed)) {
        chip.orbits.next_request_us = now_us;
        judge(chip.status.aiding_orbits[static_cast<size_t>(number)], progress);
    }
    return error.empty();
}
