// The slave of the download transport on SPI: another command set than the multiplexer's, the same wires. Its
// bytes run least significant bit first; multi-byte numbers are little-endian. A block counts as moved when
// the host has read a status that says so: until then the same data phase may be repeated, and a wake-up
// forgets it.
#ifndef TAVOR_BOARD_CHIP_SPIM_H
#define TAVOR_BOARD_CHIP_SPIM_H

#include "chip/chip_fault.h"
#include "chip/chip_options.h"
#include "chip/chip_status.h"

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

enum class ChipSpimPhase : uint8_t { idle, read, write };

// Bytes for the host that are due from a moment on.
struct ChipSpimBlock {
    uint64_t due_us = 0;
    std::vector<uint8_t> bytes;
};

struct ChipSpimState {
    bool awake = true;
    uint32_t sleepy_polls = 0; // wake-up polls left that find it asleep
    uint8_t errors = 0;        // latched error bits of the status byte
    ChipSpimPhase phase = ChipSpimPhase::idle;
    uint32_t length = 0; // of the prepared data phase
    bool config_done = false;
    bool data_done = false;
    uint32_t busy = 0;             // status reads left before the pending bit shows
    std::vector<uint8_t> received; // data phase that the host has not seen done yet
    std::vector<uint8_t> taken;    // a block that the host has seen done: chip_download takes it
    uint32_t offered = 0;          // bytes of the queue that the last data phase showed
    std::deque<ChipSpimBlock> queue;
    // While set, no violation is counted: a fault has begun or ended, which the host can't know. Its next
    // wake-up ends that, unless a fault is still in force that may confuse it (chip_fault_disturbs).
    bool excused = false;
};

// The parts of the chip that this works on.
struct ChipSpimParts {
    ChipSpimState& spim;
    const ChipOptions& options;
    ChipFaultState& faults;
    ChipStatus& status;
    std::mt19937& random;
};

// Whether the frame can only be one of the download transport, among those that may come first.
bool chip_spim_is_first_frame(const uint8_t* tx, uint32_t length);

// One frame of at least one byte; rx holds length bytes, all zero at entry.
void chip_spim_frame(const ChipSpimParts& chip, const uint8_t* tx, uint8_t* rx, uint32_t length,
                     uint64_t now_us);

// Bytes for the host, after those that wait; a read that asks for more than is due is padded with zeros.
void chip_spim_send(ChipSpimState& spim, const std::vector<uint8_t>& bytes, uint64_t due_us);

#endif
