// The boot ROM: returns what it receives before it acts on it, answers commands with 16-bit status words
// (below 0x1000: success), takes the download agent into RAM and starts it. Numbers are little-endian on SPI.
#ifndef TAVOR_BOARD_CHIP_BOOT_ROM_H
#define TAVOR_BOARD_CHIP_BOOT_ROM_H

#include "chip/chip_fault.h"
#include "chip/chip_spim.h"
#include "chip/chip_status.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

inline constexpr uint32_t kChipAgentAddress = 0x4200000;  // where the download agent runs
inline constexpr uint32_t kChipAgentMaxSize = 256 * 1024; // bytes of RAM there
inline constexpr uint32_t kChipHandshakeSize = 4;         // bytes of the handshake
inline constexpr size_t kChipBootParameters = 3;          // of one command, at most

struct ChipBootRomState {
    uint32_t handshake = 0;      // bytes of it that have been right
    uint8_t command = 0;         // 0: none is under way
    std::vector<uint8_t> number; // what has come of the parameter that is awaited
    std::array<uint32_t, kChipBootParameters> parameters = {};
    size_t parameter = 0; // index of the one that is awaited
    uint32_t echoes = 0;  // sent since the handshake
    uint32_t words = 0;   // status words sent since the handshake
    uint32_t agent_size = 0;
    uint32_t agent_taken = 0;
    uint16_t checksum = 0;
    bool jumps = false; // to the agent: nothing more is taken
    std::map<uint32_t, uint16_t> registers;
};

// The parts of the chip that this works on.
struct ChipBootRomParts {
    ChipBootRomState& boot_rom;
    ChipFaultState& faults;
    ChipSpimState& spim; // takes the bytes for the host
    ChipStatus& status;
};

// What becomes of the chip after a block.
enum class ChipLoaderEnd : uint8_t {
    none,       // it goes on
    jump,       // the boot ROM starts the agent
    power_lost, // by fault
};

// Bytes of one block from the host.
ChipLoaderEnd chip_boot_rom_receive(const ChipBootRomParts& chip, const uint8_t* data, size_t length,
                                    uint64_t now_us);

#endif
