// The chip's faults by name and value.
#ifndef TAVOR_BOARD_CHIP_FAULT_TABLE_H
#define TAVOR_BOARD_CHIP_FAULT_TABLE_H

#include "chip/chip_fault.h"

#include <string>
#include <vector>

// A line of help for one fault.
struct ChipFaultInfo {
    const char* name;
    const char* values;
    const char* help;
};

// Every fault that chip_fault_set knows.
std::vector<ChipFaultInfo> chip_fault_list();

// What COMMAND stands for in their values: "address, size, ...".
std::string chip_fault_commands();

// Starts, changes or ends a fault; "all" with "off" ends every one. Returns what is wrong with name or value,
// else empty.
std::string chip_fault_set(ChipFaultState& faults, const std::string& name, const std::string& value);

// "name value" of each fault in force, in the order of the list.
std::vector<std::string> chip_fault_active(const ChipFaultState& faults);

#endif
