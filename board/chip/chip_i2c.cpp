#include "chip/chip_i2c.h"

#include "chip/chip_bytes.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace {

constexpr uint8_t kProbe = 0x00; // written alone to the command port: is anybody there?

constexpr uint8_t kAccessRead = 0x51;
constexpr uint8_t kAccessWrite = 0x53;
constexpr uint8_t kCommandMarker = 0xAA;
constexpr uint32_t kCommandSize = 8; // 16-bit address, access, marker, 32-bit length

constexpr uint32_t kRxLenRegister = 0x0004;
constexpr uint32_t kTxLenRegister = 0x0008;
constexpr uint32_t kReceiveBuffer = 0x1000;
constexpr uint32_t kTransmitBuffer = 0x2000;
constexpr uint32_t kRegisterSize = 4;
constexpr uint8_t kFloatingLine = 0xFF; // what the host reads past the end of the data

// A transfer that breaks the protocol is not acknowledged. It counts as a violation unless the host is
// excused, at all or in this direction.
std::nullopt_t refuse(const ChipI2cParts& chip, const char* what, uint32_t number,
                      bool direction_excused = false) {
    if (!chip.i2c.excused && !direction_excused) {
        std::array<char, 128> text{};
        snprintf(text.data(), text.size(), "%s (0x%x)", what, number);
        ++chip.status.violations;
        chip.status.last_violation = text.data();
    }
    return std::nullopt;
}

// Faults that take everything and do nothing with it.
bool is_deaf(const ChipFaultState& faults) {
    return faults.zero || faults.garbage == ChipGarbage::all;
}

void randomize(std::mt19937& random, uint8_t* bytes, uint32_t length) {
    std::generate_n(bytes, length, [&] { return static_cast<uint8_t>(random()); });
}

uint32_t phase_size(bool falls_short, uint32_t length) {
    return falls_short ? std::max(length / 2, 1U) : length;
}

std::optional<uint32_t> probe(ChipI2cState& slave, const ChipFaultState& faults) {
    slave.phase = ChipPhase::idle;
    slave.excused = false;
    if (chip_fault_disturbs(faults)) {
        chip_i2c_excuse(slave);
    }
    return 1;
}

// What the host may ask for at this address; the text of the refusal, null when all is well.
const char* command_error(const ChipI2cState& slave, uint8_t access, uint32_t address, uint32_t length) {
    if (length == 0) {
        return "I2C command for no bytes";
    }
    if (address == kTransmitBuffer && access == kAccessRead) {
        return length > slave.announced_tx ? "I2C read of more than Tx_len said" : nullptr;
    }
    if (address == kReceiveBuffer && access == kAccessWrite) {
        return length > slave.announced_rx ? "I2C write of more than Rx_len said" : nullptr;
    }
    if ((address == kRxLenRegister || address == kTxLenRegister) && access == kAccessRead) {
        return length != kRegisterSize ? "I2C register length is not 4" : nullptr;
    }
    return "no such address for I2C";
}

ChipPhase phase_of(uint32_t address) {
    if (address == kTransmitBuffer) {
        return ChipPhase::data_read;
    }
    return address == kReceiveBuffer ? ChipPhase::data_write : ChipPhase::register_read;
}

std::nullopt_t refuse_command(const ChipI2cParts& chip, const char* error, uint32_t address, uint32_t count) {
    if (address == kTransmitBuffer) {
        return refuse(chip, error, count, chip.i2c.tx_excused);
    }
    if (address == kReceiveBuffer) {
        return refuse(chip, error, count, chip.i2c.rx_excused);
    }
    return refuse(chip, error, address);
}

std::optional<uint32_t> command(const ChipI2cParts& chip, const uint8_t* bytes, uint32_t length) {
    if (length == 1 && bytes[0] == kProbe) {
        return probe(chip.i2c, chip.faults);
    }
    if (length != kCommandSize) {
        return refuse(chip, "I2C command is not 8 bytes", length);
    }
    const uint32_t address = chip_load_le(bytes, 2);
    const uint8_t access = bytes[2];
    const uint32_t count = chip_load_le(bytes + 4, 4);
    if (bytes[3] != kCommandMarker) {
        return refuse(chip, "I2C command without its marker", bytes[3]);
    }
    const char* error = command_error(chip.i2c, access, address, count);
    if (error != nullptr) {
        return refuse_command(chip, error, address, count);
    }
    chip.i2c.phase = phase_of(address);
    chip.i2c.address = address;
    chip.i2c.length = count;
    return length;
}

std::optional<uint32_t> take_data(const ChipI2cParts& chip, const uint8_t* data, uint32_t length,
                                  uint64_t now_us) {
    if (chip.i2c.phase != ChipPhase::data_write || length != chip.i2c.length) {
        return refuse(chip, "I2C write without its command or of another length", length);
    }
    const uint32_t count = phase_size(chip.faults.i2c_short_write, length);
    chip.i2c.phase = ChipPhase::idle;
    chip.i2c.announced_rx -= length;
    chip.status.bytes_received += count;
    chip_command_receive(chip.commands, data, count, now_us);
    return count;
}

void fill_register(const ChipI2cParts& chip, uint8_t* out) {
    const bool tx = chip.i2c.address == kTxLenRegister;
    std::vector<uint8_t> bytes;
    chip_append_le(bytes,
                   tx ? chip_slave_tx_length(chip.faults, chip.transmit)
                      : chip_slave_rx_length(chip.faults, chip.options),
                   kRegisterSize);
    if (chip.faults.garbage == ChipGarbage::data) {
        randomize(chip.random, bytes.data(), kRegisterSize);
    }
    (tx ? chip.i2c.announced_tx : chip.i2c.announced_rx) = chip_load_le(bytes.data(), kRegisterSize);
    (tx ? chip.i2c.tx_excused : chip.i2c.rx_excused) = chip_fault_disturbs(chip.faults);
    std::copy(bytes.begin(), bytes.end(), out);
}

// count: the bytes that really move; the rest waits for the next command.
void fill_data(const ChipI2cParts& chip, uint8_t* out, uint32_t count) {
    uint64_t sentences = 0;
    const size_t popped = chip_fifo_pop(chip.transmit, out, count, sentences);
    std::fill(out + popped, out + count, kFloatingLine);
    chip.status.bytes_delivered += popped;
    chip.status.sentences_delivered += sentences;
    chip.i2c.announced_tx -= chip.i2c.length;
    if (chip.faults.garbage == ChipGarbage::data) {
        randomize(chip.random, out, count);
    }
}

std::optional<uint32_t> give_data(const ChipI2cParts& chip, uint8_t* out, uint32_t length) {
    const bool is_register = chip.i2c.phase == ChipPhase::register_read;
    if ((!is_register && chip.i2c.phase != ChipPhase::data_read) || length != chip.i2c.length) {
        return refuse(chip, "I2C read without its command or of another length", length);
    }
    const uint32_t count = phase_size(chip.faults.i2c_short_read, length);
    if (is_register) {
        fill_register(chip, out);
    } else {
        fill_data(chip, out, count);
    }
    chip.i2c.phase = ChipPhase::idle;
    return count;
}

} // namespace

void chip_i2c_excuse(ChipI2cState& slave) {
    slave.excused = true;
    slave.tx_excused = true;
    slave.rx_excused = true;
}

std::optional<uint32_t> chip_i2c_take(const ChipI2cParts& chip, uint8_t address, const uint8_t* data,
                                      uint32_t length, uint64_t now_us) {
    if (is_deaf(chip.faults)) {
        return length;
    }
    if (address == kChipI2cCommandPort) {
        return command(chip, data, length);
    }
    return address == kChipI2cWritePort ? take_data(chip, data, length, now_us)
                                        : refuse(chip, "write to no I2C port for it", address);
}

std::optional<uint32_t> chip_i2c_give(const ChipI2cParts& chip, uint8_t address, uint8_t* data,
                                      uint32_t length) {
    if (chip.faults.zero) {
        std::fill_n(data, length, uint8_t{0});
        return length;
    }
    if (is_deaf(chip.faults)) {
        randomize(chip.random, data, length);
        return length;
    }
    return address == kChipI2cReadPort ? give_data(chip, data, length)
                                       : refuse(chip, "read at no I2C port for it", address);
}
