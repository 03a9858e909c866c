// Sentences from the host: framing, checksum, acknowledgement, and the log of them. Answers to the chip's
// own requests go on to chip_aiding and chip_orbit.
#ifndef TAVOR_BOARD_CHIP_COMMAND_H
#define TAVOR_BOARD_CHIP_COMMAND_H

#include "chip/chip_aiding.h"
#include "chip/chip_fifo.h"
#include "chip/chip_orbit.h"
#include "chip/chip_status.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

inline constexpr size_t kChipCommandLogSize = 1000;
inline constexpr size_t kChipCommandMaxSize = 512; // bytes of one sentence, CR LF included

struct ChipCommandState {
    std::string line; // what has come of the sentence that is not complete yet; power loss clears it
    std::deque<ChipCommand> log;
};

// The parts of the chip that this works on.
struct ChipCommandParts {
    ChipCommandState& commands;
    ChipFifo& transmit; // takes the acknowledgements
    ChipStatus& status;
    ChipAidingParts aiding;
    ChipOrbitParts orbits;
};

// Bytes of a data phase from the host.
void chip_command_receive(const ChipCommandParts& chip, const uint8_t* data, size_t length, uint64_t now_us);

#endif
