#include "chip/chip_fault.h"

#include <algorithm>

namespace {

constexpr uint64_t kUsPerMs = 1000;

// Counts one down; false when none was left.
bool use_up(uint64_t& left) {
    if (left == 0) {
        return false;
    }
    left -= left == kChipAlways ? 0 : 1;
    return true;
}

bool strike_once(uint32_t& number, uint32_t reached) {
    const bool now = number != 0 && number == reached;
    number = now ? 0 : number;
    return now;
}

bool strikes(ChipFaultRule& rule, uint16_t command) {
    if (rule.command != kChipAnyCommand && rule.command != command) {
        return false;
    }
    return rule.every > 0 ? ++rule.count % rule.every == 0 : use_up(rule.left);
}

} // namespace

bool chip_fault_disturbs(const ChipFaultState& faults) {
    return faults.silence || faults.zero || faults.garbage != ChipGarbage::off || faults.unpowered;
}

bool chip_fault_transfer(ChipFaultState& faults) {
    return strikes(faults.transfer_fail, kChipAnyCommand);
}

uint8_t chip_fault_status(ChipFaultState& faults) {
    return use_up(faults.status_errors) ? faults.status_mask : 0;
}

bool chip_fault_nack(ChipFaultState& faults, uint8_t address) {
    const auto* const port = std::find(kChipI2cPorts.begin(), kChipI2cPorts.end(), address);
    return port != kChipI2cPorts.end() &&
           use_up(faults.i2c_nacks[static_cast<size_t>(port - kChipI2cPorts.begin())]);
}

bool chip_fault_handshake(ChipFaultState& faults, uint32_t byte) {
    return faults.handshake_byte == byte && use_up(faults.handshakes_left);
}

bool chip_fault_echo(ChipFaultState& faults, uint32_t echo) {
    return strike_once(faults.bad_echo, echo);
}

bool chip_fault_word(ChipFaultState& faults, uint32_t word) {
    return strike_once(faults.bad_word, word);
}

bool chip_fault_checksum(ChipFaultState& faults) {
    return use_up(faults.checksums_left);
}

bool chip_fault_power(ChipFaultState& faults, uint16_t command) {
    const bool counts = faults.power_command == command ||
                        (faults.power_command == kChipAnyCommand && command != kChipAgentUpload);
    return counts && faults.power_in > 0 && --faults.power_in == 0;
}

ChipAnswerFaultSet chip_fault_answer(ChipFaultState& faults, uint16_t command) {
    ChipAnswerFaultSet set;
    std::transform(faults.answers.begin(), faults.answers.end(), set.on.begin(),
                   [command](ChipFaultRule& rule) { return strikes(rule, command); });
    const bool late = faults.late_command == kChipAnyCommand || faults.late_command == command;
    set.late_us = late ? faults.late_ms * kUsPerMs : 0;
    return set;
}
