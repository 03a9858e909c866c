// What the chip asks the host for after a cold boot, and its check of the answers.
#ifndef TAVOR_BOARD_CHIP_AIDING_H
#define TAVOR_BOARD_CHIP_AIDING_H

#include "chip/chip_fifo.h"
#include "chip/chip_options.h"
#include "chip/chip_orbit.h"
#include "chip/chip_status.h"

#include <cstdint>
#include <string>
#include <vector>

struct ChipAidingState {
    uint64_t next_time_us = 0; // of the passed-in clock: when the next request is due
    uint64_t next_position_us = 0;
    bool time_known = false; // no more requests
    bool position_known = false;
    uint64_t assisted_us = 0; // when time and GPS orbits were known; valid when status says assisted
};

// The parts of the chip that this works on.
struct ChipAidingParts {
    ChipAidingState& aiding;
    const ChipOptions& options;
    const ChipOrbitState& orbits;
    ChipFifo& transmit;
    ChipStatus& status;
};

// Cold boot: everything is asked for again.
void chip_aiding_boot(ChipAidingState& aiding, ChipStatus& status, uint64_t now_us);

// Sends the requests that are due.
void chip_aiding_run(const ChipAidingParts& chip, uint64_t now_us);

// Takes a reference time (590) or reference position (600) with its fields, the number first. Returns whether
// it passed the check.
bool chip_aiding_answer(const ChipAidingParts& chip, const std::vector<std::string>& fields, uint64_t now_us);

// The checks: empty when the fields after the number are right, else what is wrong with them.
std::string chip_time_error(const std::vector<std::string>& fields, uint64_t utc_us, uint32_t tolerance_s);
std::string chip_position_error(const std::vector<std::string>& fields);

#endif
