// The multiplexer's slave on SPI. Every frame begins with an opcode; multi-byte numbers are little-endian.
#ifndef TAVOR_BOARD_CHIP_SLAVE_H
#define TAVOR_BOARD_CHIP_SLAVE_H

#include <cstdint>

struct Chip;

enum class ChipPhase : uint8_t { idle, register_read, data_read, data_write };

struct ChipSlaveState {
    bool powered = false;              // as status bit 0x01 says
    uint8_t errors = 0;                // latched error bits of the status byte
    ChipPhase phase = ChipPhase::idle; // data phase that the last configuration command prepared
    uint32_t address = 0;
    uint32_t length = 0; // of the prepared data phase
    bool config_done = false;
    bool data_done = false;
    uint32_t busy = 0;         // status reads left before the pending bit shows
    uint32_t announced_tx = 0; // register values as the host has read them
    uint32_t announced_rx = 0;
    uint8_t last_status = 0; // as the host has read it
    bool excused = true; // out of step through no fault of the host: until its next power-on nothing counts
                         // as a violation
};

// One frame of at least one byte; rx holds length bytes, all zero at entry.
void chip_slave_frame(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us);

// What the length registers say, on SPI and on I2C: bytes that the host can read and can write now.
uint32_t chip_slave_tx_length(const Chip& chip);
uint32_t chip_slave_rx_length(const Chip& chip);

#endif
