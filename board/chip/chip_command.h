// Sentences from the host: framing, checksum, acknowledgement, and the log of them. Aiding requests and the
// check of their answers.
#ifndef TAVOR_BOARD_CHIP_COMMAND_H
#define TAVOR_BOARD_CHIP_COMMAND_H

#include "chip/chip_status.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

struct Chip;

inline constexpr size_t kChipCommandLogSize = 1000;
inline constexpr size_t kChipCommandMaxSize = 512; // bytes of one sentence, CR LF included

struct ChipCommandState {
    std::string line; // what has come of the sentence that is not complete yet; power loss clears it
    std::deque<ChipCommand> log;
};

// Bytes of a data phase from the host.
void chip_command_receive(Chip& chip, const uint8_t* data, size_t length, uint64_t now_us);

#endif
