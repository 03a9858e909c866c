// The chip model: bytes in, bytes out, the level of the power line and a clock passed in. No threads, no I/O,
// no clock of its own. The clock counts microseconds, starts anywhere and never goes back.
#ifndef TAVOR_BOARD_CHIP_H
#define TAVOR_BOARD_CHIP_H

#include "chip/chip_agent.h"
#include "chip/chip_aiding.h"
#include "chip/chip_boot_rom.h"
#include "chip/chip_command.h"
#include "chip/chip_download.h"
#include "chip/chip_fault_table.h"
#include "chip/chip_fifo.h"
#include "chip/chip_flash.h"
#include "chip/chip_i2c.h"
#include "chip/chip_options.h"
#include "chip/chip_orbit.h"
#include "chip/chip_sentence.h"
#include "chip/chip_slave.h"
#include "chip/chip_source.h"
#include "chip/chip_spim.h"
#include "chip/chip_status.h"

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

// Everything the model knows; plain, so that it can be copied. Callers use the functions below.
struct Chip {
    ChipOptions options;
    ChipStatus status; // running counters; chip_status adds what is derived
    ChipFifo transmit;
    ChipSourceState source;
    ChipSlaveState slave;
    ChipI2cState i2c;
    ChipCommandState commands;
    ChipAidingState aiding;
    ChipOrbitState orbits;
    ChipFaultState faults;
    std::mt19937 random;
    uint64_t boot_us = 0;
    ChipMode mode = ChipMode::off;
    uint64_t listening_until_us = 0; // the boot ROM listens; 0: no more
    ChipSpimState spim;
    ChipBootRomState boot_rom;
    ChipAgentState agent;
    ChipFlash flash;
};

// Makes a chip that is off. The options must pass chip_options_error.
void chip_init(Chip& chip, ChipOptions options);

// The power line. Low: the chip is silent and SPI reads 0xFF. Low to high: a cold boot, with the SPI
// interface unpowered and nothing to send; see chip_download.h for what else may happen then. The same level
// again changes nothing.
void chip_power(Chip& chip, bool high, uint64_t now_us);

// One SPI frame (chip select low to high), full duplex. tx: length bytes, null for zeros; rx: length bytes or
// null. Returns false when the transfer itself fails (the device node answers EIO); rx is then untouched.
bool chip_spi_transfer(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us);

// One I2C write or read at a 7-bit address, start to stop. Return the bytes that the chip took or gave, which
// may be fewer than length by fault; nothing when the address was not acknowledged or the transfer failed.
std::optional<uint32_t> chip_i2c_write(Chip& chip, uint8_t address, const uint8_t* data, uint32_t length,
                                       uint64_t now_us);
std::optional<uint32_t> chip_i2c_read(Chip& chip, uint8_t address, uint8_t* data, uint32_t length,
                                      uint64_t now_us);

// Lets the chip produce what is due by now. Transfers do it too; needed only to see current numbers without a
// transfer.
void chip_run(Chip& chip, uint64_t now_us);

// Puts raw bytes into the transmit buffer: sentences, binary frames, garbage. Returns what is wrong (chip
// off, no room), else empty.
std::string chip_queue(Chip& chip, const std::string& bytes);

ChipStatus chip_status(const Chip& chip);

// The last sentences from the host, oldest first, at most kChipCommandLogSize.
std::vector<ChipCommand> chip_commands(const Chip& chip);

// Starts, changes or ends a fault; chip_fault_list lists names and values. "all" with "off"
// ends every fault. Returns what is wrong with name or value, else empty.
std::string chip_fault(Chip& chip, const std::string& name, const std::string& value, uint64_t now_us);

#endif
