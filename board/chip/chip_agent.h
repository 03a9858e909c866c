// The download agent: framed little-endian commands, each answered by one response; it works on the flash.
#ifndef TAVOR_BOARD_CHIP_AGENT_H
#define TAVOR_BOARD_CHIP_AGENT_H

#include "chip/chip_boot_rom.h"
#include "chip/chip_fault.h"
#include "chip/chip_flash.h"
#include "chip/chip_options.h"
#include "chip/chip_spim.h"
#include "chip/chip_status.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

// Identifiers of the commands, which their responses bear too.
enum ChipAgentCommand : uint16_t {
    kChipAgentWrite = 0x2100,
    kChipAgentRead = 0x2101,
    kChipAgentErase = 0x2104,
    kChipAgentFinish = 0x2106,
    kChipAgentReadOtp = 0x210D,
    kChipAgentFlashAddress = 0x210E,
    kChipAgentFlashSize = 0x210F,
    kChipAgentFlashId = 0x2110,
    kChipAgentSpeed = 0x2115,
    kChipAgentFlowControl = 0x2116,
    kChipAgentCheck = 0x211A,
    kChipAgentStart = 0x211B,
    kChipAgentReset = 0x211C,
};

// Status byte of a response.
enum ChipAgentStatus : uint8_t {
    kChipAgentGood = 0,
    kChipAgentBadCrc = 1,      // of the frame
    kChipAgentBadRequest = 2,  // unknown, of a wrong size, or with a number that can't be
    kChipAgentBadPlace = 3,    // outside of the flash
    kChipAgentUnerased = 4,    // the cells can't hold the data
    kChipAgentBadImage = 5,    // the image's CRC differs
    kChipAgentUnchecked = 6,   // finished without a good check of everything written
    kChipAgentToldToFail = 99, // by a fault
};

struct ChipAgentState {
    std::vector<uint8_t> input; // what has come of the frame that is not complete yet
    bool finished = false;      // takes no more commands
};

// The parts of the chip that this works on.
struct ChipAgentParts {
    ChipAgentState& agent;
    ChipFlash& flash;
    const ChipOptions& options;
    ChipFaultState& faults;
    ChipSpimState& spim; // takes the responses
    ChipStatus& status;
    std::mt19937& random;
};

// Bytes of one block from the host.
ChipLoaderEnd chip_agent_receive(const ChipAgentParts& chip, const uint8_t* data, size_t length,
                                 uint64_t now_us);

#endif
