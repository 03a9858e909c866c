// The multiplexer's slave on I2C: three 7-bit addresses where SPI has opcodes, no status byte and no power of
// its own. Multi-byte numbers are little-endian.
#ifndef TAVOR_BOARD_CHIP_I2C_H
#define TAVOR_BOARD_CHIP_I2C_H

#include "chip/chip_slave.h"

#include <cstdint>
#include <optional>

struct Chip;

struct ChipI2cState {
    ChipPhase phase = ChipPhase::idle; // data phase that the last command prepared
    uint32_t address = 0;              // of the register or buffer
    uint32_t length = 0;               // of the prepared data phase
    uint32_t announced_tx = 0;         // register values as the host has read them
    uint32_t announced_rx = 0;
    // Out of step through no fault of the host: nothing counts as a violation until its next probe, and
    // nothing in a direction until it has asked for that one's length anew; a probe may come between the two.
    bool excused = true;
    bool tx_excused = true;
    bool rx_excused = true;
};

// A fault has come or gone: the host may be out of step.
void chip_i2c_excuse(ChipI2cState& slave);

// A write or a read at an address that was acknowledged. Return the bytes that the chip took or gave, which
// may be fewer than length by fault; nothing when the slave refuses it.
std::optional<uint32_t> chip_i2c_take(Chip& chip, uint8_t address, const uint8_t* data, uint32_t length,
                                      uint64_t now_us);
std::optional<uint32_t> chip_i2c_give(Chip& chip, uint8_t address, uint8_t* data, uint32_t length);

#endif
