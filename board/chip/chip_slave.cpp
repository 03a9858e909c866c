#include "chip/chip_slave.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

constexpr uint8_t kOpPowerOff = 0x02;
constexpr uint8_t kOpPowerOn = 0x04;
constexpr uint8_t kOpReadStatus = 0x06;
constexpr uint8_t kOpWriteStatus = 0x08;
constexpr uint8_t kOpConfigRead = 0x0A;
constexpr uint8_t kOpConfigWrite = 0x0C;
constexpr uint8_t kOpWriteData = 0x0E;
constexpr uint8_t kOpReadData = 0x81;

constexpr uint8_t kStatusPowered = 0x01;
constexpr uint8_t kStatusConfigDone = 0x04;
constexpr uint8_t kStatusError = 0x08;
constexpr uint8_t kStatusDataDone = 0x20;

constexpr uint32_t kRxLenRegister = 0x0004;
constexpr uint32_t kTxLenRegister = 0x0008;
constexpr uint32_t kReceiveBuffer = 0x1000;
constexpr uint32_t kTransmitBuffer = 0x2000;

constexpr uint32_t kRegisterSize = 4;
constexpr uint32_t kConfigFrameSize = 9; // opcode, address, length - 1
constexpr uint32_t kStatusFrameSize = 2;
constexpr uint32_t kHostileLength = 0xFFFFFFFF;
constexpr uint32_t kMaxDataSize = 1U << 20; // bytes of one data phase, far above any host's

uint32_t load_le32(const uint8_t* bytes) {
    return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[3]) << 24;
}

void store_le32(uint8_t* bytes, uint32_t value) {
    for (unsigned i = 0; i < kRegisterSize; ++i) {
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// A frame that breaks the protocol has no effect but an error bit. It counts as a violation unless the host
// is excused.
void refuse(const ChipSlaveParts& chip, const char* what, uint32_t number) {
    chip.slave.errors |= kStatusError;
    if (chip.slave.excused) {
        return;
    }
    std::array<char, 128> text{};
    snprintf(text.data(), text.size(), "%s (0x%x)", what, number);
    ++chip.status.violations;
    chip.status.last_violation = text.data();
}

void end_phase(ChipSlaveState& slave) {
    slave.phase = ChipPhase::idle;
    slave.config_done = false;
    slave.data_done = false;
    slave.busy = 0;
}

void switch_power(const ChipSlaveParts& chip, bool on) {
    end_phase(chip.slave);
    chip.slave.powered = on && !chip.faults.unpowered;
    if (on) {
        chip.slave.excused = chip_fault_disturbs(chip.faults);
    }
}

uint8_t read_status(const ChipSlaveParts& chip) {
    ChipSlaveState& slave = chip.slave;
    uint8_t status = slave.errors | chip_fault_status(chip.faults);
    if (!slave.powered) {
        return status;
    }
    status |= kStatusPowered;
    if (slave.busy > 0) {
        --slave.busy;
    } else if (!chip.faults.never_ready) {
        status |= slave.config_done ? kStatusConfigDone : 0;
        status |= slave.data_done ? kStatusDataDone : 0;
    }
    return status;
}

// What the host may ask for at this address; the text of the refusal, null when all is well.
const char* config_error(const ChipSlaveState& slave, bool write, uint32_t address, uint32_t length) {
    if (address == kTransmitBuffer && !write) {
        return length > slave.announced_tx ? "read of more than Tx_len said" : nullptr;
    }
    if (address == kReceiveBuffer && write) {
        return length > slave.announced_rx ? "write of more than Rx_len said" : nullptr;
    }
    if ((address == kRxLenRegister || address == kTxLenRegister) && !write) {
        return length != kRegisterSize ? "register length is not 4" : nullptr;
    }
    return "no such address";
}

ChipPhase phase_of(uint32_t address) {
    if (address == kTransmitBuffer) {
        return ChipPhase::data_read;
    }
    return address == kReceiveBuffer ? ChipPhase::data_write : ChipPhase::register_read;
}

void configure(const ChipSlaveParts& chip, const uint8_t* tx, uint32_t length) {
    if (length != kConfigFrameSize) {
        return refuse(chip, "configuration frame is not 9 bytes", length);
    }
    ChipSlaveState& slave = chip.slave;
    const uint32_t address = load_le32(tx + 1);
    const uint32_t last = load_le32(tx + 5); // length - 1
    if (last >= kMaxDataSize) {
        return refuse(chip, "length field too large", last);
    }
    const char* error = config_error(slave, tx[0] == kOpConfigWrite, address, last + 1);
    if (error != nullptr) {
        return refuse(chip, error,
                      address == kTransmitBuffer || address == kReceiveBuffer ? last + 1 : address);
    }
    end_phase(slave);
    slave.phase = phase_of(address);
    slave.address = address;
    slave.length = last + 1;
    slave.config_done = true;
    slave.busy = chip.options.busy_polls;
}

bool data_phase_right(const ChipSlaveParts& chip, bool phase_matches, uint32_t length) {
    const ChipSlaveState& slave = chip.slave;
    if (!phase_matches) {
        refuse(chip, "data phase without its command", length);
    } else if (slave.busy > 0 || chip.faults.never_ready) {
        refuse(chip, "data phase before the command was done", length);
    } else if (length != slave.length + 1) {
        refuse(chip, "data phase of another length than its command", length);
    } else {
        return true;
    }
    return false;
}

void data_phase_done(const ChipSlaveParts& chip) {
    end_phase(chip.slave);
    chip.slave.data_done = true;
    chip.slave.busy = chip.options.busy_polls;
}

void randomize(std::mt19937& random, uint8_t* bytes, uint32_t length) {
    std::generate_n(bytes, length, [&] { return static_cast<uint8_t>(random()); });
}

void read_register(const ChipSlaveParts& chip, uint8_t* out) {
    const bool tx = chip.slave.address == kTxLenRegister;
    store_le32(out, tx ? chip_slave_tx_length(chip.faults, chip.transmit)
                       : chip_slave_rx_length(chip.faults, chip.options));
    if (chip.faults.garbage == ChipGarbage::data) {
        randomize(chip.random, out, kRegisterSize);
    }
    (tx ? chip.slave.announced_tx : chip.slave.announced_rx) = load_le32(out);
}

void read_data(const ChipSlaveParts& chip, uint8_t* rx, uint32_t length) {
    const ChipPhase phase = chip.slave.phase;
    if (!data_phase_right(chip, phase == ChipPhase::register_read || phase == ChipPhase::data_read, length)) {
        return;
    }
    if (phase == ChipPhase::register_read) {
        read_register(chip, rx + 1);
    } else {
        uint64_t sentences = 0;
        chip.status.bytes_delivered += chip_fifo_pop(chip.transmit, rx + 1, chip.slave.length, sentences);
        chip.status.sentences_delivered += sentences;
        chip.slave.announced_tx -= chip.slave.length;
        if (chip.faults.garbage == ChipGarbage::data) {
            randomize(chip.random, rx + 1, chip.slave.length);
        }
    }
    data_phase_done(chip);
}

void write_data(const ChipSlaveParts& chip, const uint8_t* tx, uint32_t length, uint64_t now_us) {
    if (!data_phase_right(chip, chip.slave.phase == ChipPhase::data_write, length)) {
        return;
    }
    chip.status.bytes_received += length - 1;
    chip_command_receive(chip.commands, tx + 1, length - 1, now_us);
    chip.slave.announced_rx -= length - 1;
    data_phase_done(chip);
}

void powered_frame(const ChipSlaveParts& chip, const uint8_t* tx, uint8_t* rx, uint32_t length,
                   uint64_t now_us) {
    if (!chip.slave.powered) {
        return refuse(chip, "command to an unpowered interface", tx[0]);
    }
    switch (tx[0]) {
    case kOpConfigRead:
    case kOpConfigWrite:
        return configure(chip, tx, length);
    case kOpReadData:
        return read_data(chip, rx, length);
    case kOpWriteData:
        return write_data(chip, tx, length, now_us);
    default:
        return refuse(chip, "unknown opcode", tx[0]);
    }
}

} // namespace

uint32_t chip_slave_tx_length(const ChipFaultState& faults, const ChipFifo& transmit) {
    if (faults.hostile_tx || faults.zero_tx) {
        return faults.hostile_tx ? kHostileLength : 0;
    }
    const size_t waiting = chip_fifo_size(transmit);
    return static_cast<uint32_t>(std::min<size_t>(waiting, faults.bytewise ? 1 : kMaxDataSize));
}

uint32_t chip_slave_rx_length(const ChipFaultState& faults, const ChipOptions& options) {
    if (faults.hostile_rx || faults.zero_rx) {
        return faults.hostile_rx ? kHostileLength : 0;
    }
    return options.rx_window;
}

void chip_slave_frame(const ChipSlaveParts& chip, const uint8_t* tx, uint8_t* rx, uint32_t length,
                      uint64_t now_us) {
    switch (tx[0]) {
    case kOpReadStatus:
        if (length != kStatusFrameSize) {
            return refuse(chip, "status frame is not 2 bytes", length);
        }
        rx[1] = read_status(chip);
        if (chip.faults.garbage == ChipGarbage::status) {
            randomize(chip.random, rx + 1, 1);
        }
        return;
    case kOpWriteStatus:
        if (length != kStatusFrameSize || tx[1] != chip.slave.last_status) {
            return refuse(chip, "status written back is not the status read", length > 1 ? tx[1] : length);
        }
        chip.slave.errors = 0;
        return;
    case kOpPowerOff:
    case kOpPowerOn:
        if (length != 1) {
            return refuse(chip, "power frame is not 1 byte", length);
        }
        return switch_power(chip, tx[0] == kOpPowerOn);
    default:
        return powered_frame(chip, tx, rx, length, now_us);
    }
}
