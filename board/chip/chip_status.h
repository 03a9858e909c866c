// What the chip has seen and done, as plain numbers and texts.
#ifndef TAVOR_BOARD_CHIP_STATUS_H
#define TAVOR_BOARD_CHIP_STATUS_H

#include <cstdint>
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

// Counters run from chip_init on, through every cold boot.
struct ChipStatus {
    uint64_t transfers = 0;        // SPI frames, failed ones included
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
};

#endif
