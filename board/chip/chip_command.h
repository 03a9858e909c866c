// Sentences from the host: framing, checksum, acknowledgement, and the log of them. Aiding requests and the
// check of their answers.
#ifndef TAVOR_BOARD_CHIP_COMMAND_H
#define TAVOR_BOARD_CHIP_COMMAND_H

#include "chip/chip_status.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct Chip;

inline constexpr size_t kChipCommandLogSize = 1000;
inline constexpr size_t kChipCommandMaxSize = 512; // bytes of one sentence, CR LF included

struct ChipCommandState {
    std::string line; // what has come of the sentence that is not complete yet
    std::deque<ChipCommand> log;
    uint64_t next_time_request_us = 0; // of the passed-in clock
    uint64_t next_position_request_us = 0;
    bool time_known = false;
    bool position_known = false;
};

// Cold boot: a sentence that is not complete is forgotten, the aiding requests start anew.
void chip_command_boot(Chip& chip, uint64_t now_us);

// Bytes of a data phase from the host.
void chip_command_receive(Chip& chip, const uint8_t* data, size_t length, uint64_t now_us);

// Sends the aiding requests that are due.
void chip_command_run(Chip& chip, uint64_t now_us);

// Check of the fields behind the number of a reference time (590) or reference position (600): "good", else
// what is wrong.
std::string chip_check_time(const std::vector<std::string>& fields, uint64_t utc_us, uint32_t tolerance_s);
std::string chip_check_position(const std::vector<std::string>& fields);

#endif
