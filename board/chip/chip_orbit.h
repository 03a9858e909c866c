// The chip's requests for predicted orbits, constellation by constellation, and its check of every record
// that comes.
#ifndef TAVOR_BOARD_CHIP_ORBIT_H
#define TAVOR_BOARD_CHIP_ORBIT_H

#include "chip/chip_fifo.h"
#include "chip/chip_options.h"
#include "chip/chip_orbit_file.h"
#include "chip/chip_status.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// One constellation.
struct ChipOrbitProgress {
    bool known = false;      // no more requests
    uint64_t due_us = 0;     // of the next request
    uint32_t asked_hour = 0; // GPS hour of the last request, 0: none yet
    uint32_t hour = 0;       // of the records of this answer
    size_t received = 0;     // records of this answer
    std::string error;       // the first one of this answer
};

struct ChipOrbitState {
    std::array<ChipOrbitProgress, kChipConstellations> of;
    uint64_t next_request_us = 0; // while an answer may come no other is asked for
};

// The parts of the chip that this works on.
struct ChipOrbitParts {
    ChipOrbitState& orbits;
    const ChipOptions& options;
    ChipFifo& transmit;
    ChipStatus& status;
};

// Cold boot: everything is asked for again.
void chip_orbit_boot(ChipOrbitState& orbits, uint64_t now_us);

// Sends the request that is due.
void chip_orbit_run(const ChipOrbitParts& chip, uint64_t now_us);

// Takes a record (471) with its fields, the number first. Returns whether it is the one that was due.
bool chip_orbit_answer(const ChipOrbitParts& chip, const std::vector<std::string>& fields, uint64_t now_us);

#endif
