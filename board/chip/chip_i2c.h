// The multiplexer's slave on I2C: three 7-bit addresses where SPI has opcodes, no status byte and no power of
// its own. Multi-byte numbers are little-endian.
#ifndef TAVOR_BOARD_CHIP_I2C_H
#define TAVOR_BOARD_CHIP_I2C_H

#include "chip/chip_command.h"
#include "chip/chip_fault.h"
#include "chip/chip_fifo.h"
#include "chip/chip_options.h"
#include "chip/chip_slave.h"
#include "chip/chip_status.h"

#include <cstdint>
#include <optional>
#include <random>

struct ChipI2cState {
    ChipPhase phase = ChipPhase::idle; // data phase that the last command prepared
    uint32_t address = 0;              // of the register or buffer
    uint32_t length = 0;               // of the prepared data phase
    uint32_t announced_tx = 0;         // register values as the host has read them
    uint32_t announced_rx = 0;
    // While set, no violation is counted: the chip may just have got its power, or a fault may have begun or
    // ended, and the host can't know. The first ends with the host's next probe, the other two each when it
    // reads that direction's length register again (it may probe in between and still hold an old length);
    // none of them ends while a fault is in force that may confuse it (chip_fault_disturbs).
    bool excused = true;
    bool tx_excused = true;
    bool rx_excused = true;
};

// The parts of the chip that this works on.
struct ChipI2cParts {
    ChipI2cState& i2c;
    const ChipOptions& options;
    ChipFaultState& faults;
    ChipFifo& transmit;
    ChipCommandParts commands; // takes what the host writes
    ChipStatus& status;
    std::mt19937& random;
};

// A fault has begun or ended: the host is excused in every way.
void chip_i2c_excuse(ChipI2cState& slave);

// A write or a read at an address that was acknowledged. Return the bytes that the chip took or gave, which
// may be fewer than length by fault; nothing when the slave refuses it.
std::optional<uint32_t> chip_i2c_take(const ChipI2cParts& chip, uint8_t address, const uint8_t* data,
                                      uint32_t length, uint64_t now_us);
std::optional<uint32_t> chip_i2c_give(const ChipI2cParts& chip, uint8_t address, uint8_t* data,
                                      uint32_t length);

#endif
