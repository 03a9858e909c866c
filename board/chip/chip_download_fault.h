// Faults of a download: boot ROM, download agent and its responses, power.
#ifndef TAVOR_BOARD_CHIP_DOWNLOAD_FAULT_H
#define TAVOR_BOARD_CHIP_DOWNLOAD_FAULT_H

#include "chip/chip_fault_value.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct Chip;

inline constexpr uint16_t kChipAnyCommand = 0;
inline constexpr uint16_t kChipAgentUpload = 1; // in the place of a command: a block of the agent itself

enum ChipAnswerFault : uint8_t {
    kChipAnswerLost,
    kChipAnswerTwice,
    kChipAnswerForeign,
    kChipAnswerStatus,
    kChipAnswerLog,
    kChipAnswerGarbage,
    kChipAnswerFaults, // how many there are
};

struct ChipAnswerRule {
    uint64_t left = 0;  // responses that it still befalls
    uint64_t every = 0; // or every n-th; 0: none
    uint64_t count = 0; // since that was set
    uint16_t command = kChipAnyCommand;
};

struct ChipDownloadFaults {
    bool boot_silent = false;
    bool asleep = false;
    uint32_t handshake_byte = 0; // 1 to 4
    uint64_t handshakes_left = 0;
    uint32_t bad_echo = 0; // n-th since the handshake, once; 0: none
    uint32_t bad_word = 0; // n-th status word since the handshake, once; 0: none
    uint64_t checksums_left = 0;
    std::array<ChipAnswerRule, kChipAnswerFaults> answers = {};
    uint32_t late_ms = 0;
    uint16_t late_command = kChipAnyCommand;
    uint64_t power_in = 0; // commands until the power fails, the fatal one included; 0: none
    uint16_t power_command = kChipAnyCommand;
};

// What befalls one response.
struct ChipAnswerFaultSet {
    std::array<bool, kChipAnswerFaults> on = {};
    uint64_t late_us = 0;
};

const std::vector<ChipFaultInfo>& chip_download_fault_table();
bool chip_download_fault_known(const std::string& name);

// What COMMAND stands for in the table's values: "address, size, ...".
std::string chip_download_fault_commands();

// Sets a known fault; false when the value is none of it.
bool chip_download_fault_set(ChipDownloadFaults& faults, const std::string& name, const std::string& value);

// Appends "name value" of each fault in force.
void chip_download_fault_active(const ChipDownloadFaults& faults, std::vector<std::string>& active);

// Each counts the fault when it strikes.
bool chip_download_fault_handshake(ChipDownloadFaults& faults, uint32_t byte); // 1 to 4
bool chip_download_fault_echo(ChipDownloadFaults& faults, uint32_t echo);      // 1: the first
bool chip_download_fault_word(ChipDownloadFaults& faults, uint32_t word);
bool chip_download_fault_checksum(ChipDownloadFaults& faults);
bool chip_download_fault_power(ChipDownloadFaults& faults, uint16_t command);
ChipAnswerFaultSet chip_download_fault_answer(ChipDownloadFaults& faults, uint16_t command);

// Sends a response with what befalls it, apart from its status.
void chip_download_fault_send(Chip& chip, const ChipAnswerFaultSet& faults, const std::vector<uint8_t>& frame,
                              uint64_t now_us);

#endif
