// The multiplexer's slave on SPI. Every frame begins with an opcode; multi-byte numbers are little-endian.
#ifndef TAVOR_BOARD_CHIP_SLAVE_H
#define TAVOR_BOARD_CHIP_SLAVE_H

#include "chip/chip_command.h"
#include "chip/chip_fault.h"
#include "chip/chip_fifo.h"
#include "chip/chip_options.h"
#include "chip/chip_status.h"

#include <cstdint>
#include <random>

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
    // While set, no violation is counted: the chip may just have got its power, or a fault may have begun or
    // ended, and the host can't know. Its next power-on ends that, unless a fault is still in force
    // that may confuse it (chip_fault_disturbs).
    bool excused = true;
};

// The parts of the chip that this works on.
struct ChipSlaveParts {
    ChipSlaveState& slave;
    const ChipOptions& options;
    ChipFaultState& faults;
    ChipFifo& transmit;
    ChipCommandParts commands; // takes what the host writes
    ChipStatus& status;
    std::mt19937& random;
};

// One frame of at least one byte; rx holds length bytes, all zero at entry.
void chip_slave_frame(const ChipSlaveParts& chip, const uint8_t* tx, uint8_t* rx, uint32_t length,
                      uint64_t now_us);

// What the length registers say, on SPI and on I2C: bytes that the host can read and can write now.
uint32_t chip_slave_tx_length(const ChipFaultState& faults, const ChipFifo& transmit);
uint32_t chip_slave_rx_length(const ChipFaultState& faults, const ChipOptions& options);

#endif
