// When the chip produces which sentences: pacing by epochs or at full speed, limits, the way into the
// transmit buffer.
#ifndef TAVOR_BOARD_CHIP_SOURCE_H
#define TAVOR_BOARD_CHIP_SOURCE_H

#include "chip/chip_aiding.h"
#include "chip/chip_fifo.h"
#include "chip/chip_options.h"
#include "chip/chip_status.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct ChipSourceState {
    uint64_t epoch = 0; // number of the next epoch; epoch n is at n / rate seconds of UTC
    std::vector<std::string> staged;
    size_t staged_next = 0;
    size_t replay_position = 0;
    bool finished = false;
};

// The parts of the chip that this works on.
struct ChipSourceParts {
    ChipSourceState& source;
    const ChipOptions& options;
    const ChipAidingState& aiding;
    ChipFifo& transmit;
    ChipStatus& status;
    uint64_t boot_us; // of the passed-in clock: the last cold boot
};

// Cold boot: the first epoch is the next one due, a replay starts at its beginning.
void chip_source_boot(const ChipSourceParts& chip, uint64_t now_us);

// Produces what is due by now; at full speed what the transmit buffer has run low by.
void chip_source_run(const ChipSourceParts& chip, uint64_t now_us);

// Produces sentences of the trajectory at once until at least this many bytes of them wait, room or not.
void chip_source_backlog(const ChipSourceParts& chip, size_t bytes, uint64_t now_us);

#endif
