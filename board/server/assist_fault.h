// Faults of the assistance server, by name and value like the chip's.
#ifndef TAVOR_BOARD_ASSIST_FAULT_H
#define TAVOR_BOARD_ASSIST_FAULT_H

#include "chip/chip_fault_table.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

enum class AssistFault : uint8_t {
    no_etag,       // the answer has none
    upper_etag,    // upper-case digits
    wrong_content, // the ETag is another content's
    not_found,     // status 404
    reset,         // the connection breaks in mid-body
    stall,         // nothing comes any more in mid-body
    slow,          // value: bytes a second
    stale,         // value: hours that the files start too early
};

inline constexpr size_t kAssistFaults = 8;

// What is in force. A count of requests, kChipAlways for all; for slow and stale the value itself. 0: off.
struct AssistFaultState {
    std::array<uint64_t, kAssistFaults> value = {};

    uint64_t of(AssistFault fault) const {
        return value[static_cast<size_t>(fault)];
    }
};

// Every fault that assist_fault_set knows.
std::vector<ChipFaultInfo> assist_fault_list();

// Whether the server has a fault of this name.
bool assist_fault_is(const std::string& name);

// Starts, changes or ends a fault; "all" with "off" ends every one. Returns what is wrong with name or value,
// else empty.
std::string assist_fault_set(AssistFaultState& faults, const std::string& name, const std::string& value);

// "name value" of each fault in force.
std::vector<std::string> assist_fault_active(const AssistFaultState& faults);

// What is in force for the next request; counts it.
AssistFaultState assist_fault_next(AssistFaultState& faults);

#endif
