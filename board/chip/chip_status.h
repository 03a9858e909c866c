// What the chip has seen and done, as plain numbers and texts.
#ifndef TAVOR_BOARD_CHIP_STATUS_H
#define TAVOR_BOARD_CHIP_STATUS_H

#include "chip/chip_orbit_file.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The exchange about one kind of reference data.
struct ChipAidingStatus {
    uint64_t requests = 0; // sent by the chip
    uint64_t good = 0;     // answers that passed the check
    uint64_t bad = 0;
    std::string verdict; // of the last answer: "good", else what was wrong with it; empty without an answer
};

// One sentence from the host, good or bad.
struct ChipCommand {
    std::string text;     // without CR LF
    bool good = false;    // framing, checksum and number are right
    uint64_t time_us = 0; // the passed-in clock
};

// Firmware downloads.
struct ChipDownloadStatus {
    std::string state;            // who has the chip
    bool bootable = false;        // the flash holds firmware that starts
    uint64_t started = 0;         // times that the boot ROM kept the chip
    uint64_t handshakes = 0;      // complete ones
    uint64_t boot_errors = 0;     // status words that reported an error
    uint64_t wake_ups = 0;        // of the transport's slave
    uint64_t bytes_received = 0;  // through the transport
    uint64_t agent_bytes = 0;     // of the agent itself
    uint64_t commands = 0;        // to the agent
    uint64_t commands_failed = 0; // answered with a status other than 0
    uint64_t blocks_erased = 0;
    uint64_t blocks_written = 0;
    uint64_t bytes_written = 0;
    uint64_t images_checked = 0; // good ones
    uint64_t completed = 0;      // downloads
    std::string result; // of the last one: "under way", "complete", "unchecked", "cut off"; empty: none yet
};

// Counters run from chip_init on, through every cold boot.
struct ChipStatus {
    uint64_t transfers = 0;        // SPI frames and I2C transfers, failed ones included
    uint64_t transfers_failed = 0; // by fault
    uint64_t sentences_produced = 0;
    uint64_t sentences_delivered = 0; // the last byte has been read by the host
    uint64_t sentences_dropped = 0;   // no room in the transmit buffer
    uint64_t bytes_delivered = 0;     // to the host
    uint64_t bytes_received = 0;      // in data phases from the host
    uint64_t bytes_noise = 0;         // received outside of any sentence
    uint64_t bytes_queued = 0;        // waiting in the transmit buffer now
    uint64_t commands_good = 0;
    uint64_t commands_bad = 0;
    std::string last_command;
    uint64_t violations = 0; // of the multiplexer protocol, by the host
    std::string last_violation;
    uint64_t cold_boots = 0;
    bool powered = false;            // level of the power line
    bool interface_powered = false;  // as status bit 0x01 says
    bool finished = false;           // replay or sentence limit at its end
    std::vector<std::string> faults; // "name value" of each fault in force
    ChipAidingStatus aiding_time;
    ChipAidingStatus aiding_position;
    std::array<ChipAidingStatus, kChipConstellations> aiding_orbits; // an answer is all records of a request
    uint64_t orbits_stray = 0;                                       // records that nobody asked for
    bool assisted = false;                                           // time and GPS orbits have come
    std::optional<uint64_t> first_fix_ms; // from the last cold boot to its first fix; none yet
    ChipDownloadStatus download;
};

#endif
