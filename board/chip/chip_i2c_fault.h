// Faults of the chip on I2C alone.
#ifndef TAVOR_BOARD_CHIP_I2C_FAULT_H
#define TAVOR_BOARD_CHIP_I2C_FAULT_H

#include "chip/chip_fault_value.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr uint8_t kChipI2cCommandPort = 0x50;
inline constexpr uint8_t kChipI2cReadPort = 0x54;
inline constexpr uint8_t kChipI2cWritePort = 0x58;

struct ChipI2cFaults {
    std::array<uint64_t, 3> nacks_left = {}; // at the command, read and write port
    bool short_read = false;
    bool short_write = false;
};

const std::vector<ChipFaultInfo>& chip_i2c_fault_table();
bool chip_i2c_fault_known(const std::string& name);

// Sets a known fault; false when the value is none of it.
bool chip_i2c_fault_set(ChipI2cFaults& faults, const std::string& name, const std::string& value);

// Appends "name value" of each fault in force.
void chip_i2c_fault_active(const ChipI2cFaults& faults, std::vector<std::string>& active);

// Whether this attempt at the address is not acknowledged; counts it.
bool chip_i2c_fault_nack(ChipI2cFaults& faults, uint8_t address);

#endif
