// Faults of the chip and its bus, by name and value.
#ifndef TAVOR_BOARD_CHIP_FAULT_H
#define TAVOR_BOARD_CHIP_FAULT_H

#include "chip/chip_download_fault.h"
#include "chip/chip_fault_value.h"
#include "chip/chip_i2c_fault.h"

#include <cstdint>
#include <string>
#include <vector>

struct Chip;

enum class ChipGarbage : uint8_t { off, all, status, data };

struct ChipFaultState {
    uint64_t status_errors = 0; // status reads left that show error bits
    uint8_t status_mask = 0;
    uint64_t transfer_fails = 0;      // transfers left that fail
    uint64_t transfer_fail_every = 0; // every n-th fails; 0: none
    uint64_t transfer_count = 0;      // since that was set
    ChipGarbage garbage = ChipGarbage::off;
    bool silence = false;
    bool zero = false;
    bool unpowered = false;
    bool never_ready = false;
    bool bytewise = false;
    bool hostile_tx = false;
    bool hostile_rx = false;
    bool zero_tx = false;
    bool zero_rx = false;
    ChipDownloadFaults download;
    ChipI2cFaults i2c;
};

// Every fault that chip_fault knows.
const std::vector<ChipFaultInfo>& chip_fault_table();

// "name value" of each fault in force.
std::vector<std::string> chip_fault_active(const ChipFaultState& faults);

// Whether a fault in force may bring a host out of step with the slave.
bool chip_fault_disturbs(const ChipFaultState& faults);

// Whether the next transfer fails; counts it.
bool chip_fault_transfer(ChipFaultState& faults);

// Error bits that this status read shows; counts it.
uint8_t chip_fault_status(ChipFaultState& faults);

#endif
