// Values of faults as text.
#ifndef TAVOR_BOARD_CHIP_FAULT_VALUE_H
#define TAVOR_BOARD_CHIP_FAULT_VALUE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

inline constexpr uint64_t kChipAlways = UINT64_MAX;

// A line of help for one fault.
struct ChipFaultInfo {
    const char* name;
    const char* values;
    const char* help;
};

// A number from 1 to 1,000,000,000.
std::optional<uint64_t> chip_fault_count(std::string_view text);

// off (0), once (1), always (kChipAlways) or a count.
std::optional<uint64_t> chip_fault_repetition(std::string_view text);
std::string chip_fault_repetition_text(uint64_t left);

// Counts one down; false when none was left.
bool chip_fault_use_up(uint64_t& left);

// on or off; anything else changes nothing and returns false.
bool chip_fault_switch(bool& fault, std::string_view value);

#endif
