// Faults of the chip and its bus: what is in force, and when it strikes.
#ifndef TAVOR_BOARD_CHIP_FAULT_H
#define TAVOR_BOARD_CHIP_FAULT_H

#include <array>
#include <cstdint>

inline constexpr uint64_t kChipAlways = UINT64_MAX;

inline constexpr uint16_t kChipAnyCommand = 0;
inline constexpr uint16_t kChipAgentUpload = 1; // in place of a command: a block of the agent itself

inline constexpr uint8_t kChipI2cCommandPort = 0x50;
inline constexpr uint8_t kChipI2cReadPort = 0x54;
inline constexpr uint8_t kChipI2cWritePort = 0x58;
inline constexpr std::array<uint8_t, 3> kChipI2cPorts = {kChipI2cCommandPort, kChipI2cReadPort,
                                                         kChipI2cWritePort};

enum class ChipGarbage : uint8_t { off, all, status, data };

enum ChipAnswerFault : uint8_t {
    kChipAnswerLost,
    kChipAnswerTwice,
    kChipAnswerForeign,
    kChipAnswerStatus,
    kChipAnswerLog,
    kChipAnswerGarbage,
    kChipAnswerFaults, // how many there are
};

// How often a fault strikes.
struct ChipFaultRule {
    uint64_t left = 0;  // so many more times, kChipAlways: for ever
    uint64_t every = 0; // or every n-th time; 0: none
    uint64_t count = 0; // since that was set
    uint16_t command = kChipAnyCommand;
};

struct ChipFaultState {
    uint64_t status_errors = 0; // status reads left that show error bits
    uint8_t status_mask = 0;
    ChipFaultRule transfer_fail;
    ChipGarbage garbage = ChipGarbage::off;
    bool silence = false;
    bool zero = false;
    bool unpowered = false;
    bool never_ready = false;
    bool bytewise = false;
    bool hostile_tx = false; // length registers
    bool hostile_rx = false;
    bool zero_tx = false;
    bool zero_rx = false;
    uint64_t backlog = 0; // bytes of sentences to make at once; chip_fault takes them

    std::array<uint64_t, kChipI2cPorts.size()> i2c_nacks = {}; // attempts left at each port
    bool i2c_short_read = false;
    bool i2c_short_write = false;

    bool boot_silent = false;
    bool asleep = false;
    uint32_t handshake_byte = 0; // 1 to 4
    uint64_t handshakes_left = 0;
    uint32_t bad_echo = 0; // n-th since the handshake, once; 0: none
    uint32_t bad_word = 0; // n-th status word since the handshake, once; 0: none
    uint64_t checksums_left = 0;
    std::array<ChipFaultRule, kChipAnswerFaults> answers = {};
    uint32_t late_ms = 0;
    uint16_t late_command = kChipAnyCommand;
    uint64_t power_in = 0; // commands until the power fails, the fatal one included; 0: none
    uint16_t power_command = kChipAnyCommand;
};

// The faults that strike one response of the agent.
struct ChipAnswerFaultSet {
    std::array<bool, kChipAnswerFaults> on = {};
    uint64_t late_us = 0;
};

// Whether a fault in force may make a host lose track of what the chip has taken and answered.
bool chip_fault_disturbs(const ChipFaultState& faults);

// Whether the fault strikes now; each counts it.
bool chip_fault_transfer(ChipFaultState& faults);
uint8_t chip_fault_status(ChipFaultState& faults);                // error bits that this status read shows
bool chip_fault_nack(ChipFaultState& faults, uint8_t address);    // this attempt at the I2C address
bool chip_fault_handshake(ChipFaultState& faults, uint32_t byte); // 1 to 4
bool chip_fault_echo(ChipFaultState& faults, uint32_t echo);      // 1: the first
bool chip_fault_word(ChipFaultState& faults, uint32_t word);
bool chip_fault_checksum(ChipFaultState& faults);
bool chip_fault_power(ChipFaultState& faults, uint16_t command);
ChipAnswerFaultSet chip_fault_answer(ChipFaultState& faults, uint16_t command);

#endif
