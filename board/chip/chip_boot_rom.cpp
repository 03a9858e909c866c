#include "chip/chip_boot_rom.h"

#include "chip/chip_bytes.h"

#include <algorithm>

namespace {

constexpr std::array<uint8_t, kChipHandshakeSize> kHandshake = {0xA0, 0x0A, 0x50, 0x05};

constexpr uint8_t kWriteRegister = 0xD2;
constexpr uint8_t kSetSpeed = 0xDC;
constexpr uint8_t kSendAgent = 0xD7;
constexpr uint8_t kJump = 0xD5;
constexpr uint8_t kReadIdentifier = 0xE9;

constexpr uint16_t kGood = 0;
constexpr uint16_t kUnknownCommand = 0x1001; // from 0x1000 on: errors
constexpr uint16_t kBadAddress = 0x1002;
constexpr uint16_t kBadLength = 0x1003;
constexpr uint16_t kNoAgent = 0x1004;
constexpr uint16_t kToldToFail = 0x1099;    // by a fault
constexpr uint16_t kChecksumFault = 0x5555; // difference to the right one

constexpr uint32_t kRegistersBegin = 0xA2080000;
constexpr uint32_t kRegistersSize = 0x1000;
constexpr size_t kIdentifierSize = 16;

struct Command {
    uint8_t byte;
    std::array<uint8_t, kChipBootParameters> sizes; // of its parameters in bytes; 0: no more
};

constexpr Command kCommands[] = {
    {kWriteRegister, {4, 4, 2}}, // address, count, value
    {kSetSpeed, {4}},            // bits a second
    {kSendAgent, {4, 4, 4}},     // address, length, length of a signature
    {kJump, {4}},                // address
    {kReadIdentifier, {}},
};

const Command* command_of(uint8_t byte) {
    const auto* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [byte](const Command& command) { return command.byte == byte; });
    return found == std::end(kCommands) ? nullptr : found;
}

void send(const ChipBootRomParts& chip, const std::vector<uint8_t>& bytes, uint64_t now_us) {
    if (!chip.faults.boot_silent) {
        chip_spim_send(chip.spim, bytes, now_us);
    }
}

void send_word(const ChipBootRomParts& chip, uint16_t word, uint64_t now_us) {
    std::vector<uint8_t> bytes;
    chip_append_le(bytes, word, sizeof word);
    send(chip, bytes, now_us);
}

void echo(const ChipBootRomParts& chip, std::vector<uint8_t> bytes, uint64_t now_us) {
    ++chip.boot_rom.echoes;
    if (chip_fault_echo(chip.faults, chip.boot_rom.echoes)) {
        bytes[0] ^= 0x01;
    }
    send(chip, bytes, now_us);
}

// Returns whether the status that went out is good.
bool send_status(const ChipBootRomParts& chip, uint16_t status, uint64_t now_us) {
    ++chip.boot_rom.words;
    const bool wrong = chip_fault_word(chip.faults, chip.boot_rom.words);
    const uint16_t shown = wrong ? kToldToFail : status;
    chip.status.download.boot_errors += shown == kGood ? 0 : 1;
    send_word(chip, shown, now_us);
    return shown == kGood;
}

void end_command(ChipBootRomState& rom) {
    rom.command = 0;
    rom.parameter = 0;
    rom.number.clear();
}

bool is_register(uint32_t address, uint32_t count) {
    return count == 1 && address >= kRegistersBegin && address - kRegistersBegin < kRegistersSize;
}

// The three act once the parameter of this index has come; false ends the command.
bool write_register(const ChipBootRomParts& chip, size_t index, uint64_t now_us) {
    ChipBootRomState& rom = chip.boot_rom;
    if (index == 1) {
        const bool known = is_register(rom.parameters[0], rom.parameters[1]);
        return send_status(chip, known ? kGood : kBadAddress, now_us);
    }
    if (index == 2 && send_status(chip, kGood, now_us)) {
        rom.registers[rom.parameters[0]] = static_cast<uint16_t>(rom.parameters[2]);
    }
    return index < 2;
}

bool send_agent(const ChipBootRomParts& chip, size_t index, uint64_t now_us) {
    ChipBootRomState& rom = chip.boot_rom;
    if (index < 2) {
        return true;
    }
    const uint32_t size = rom.parameters[1];
    const bool fits = size > 0 && size <= kChipAgentMaxSize && rom.parameters[2] == 0;
    rom.agent_size = 0;
    rom.agent_taken = 0;
    rom.checksum = 0;
    const uint16_t status = rom.parameters[0] != kChipAgentAddress ? kBadAddress : fits ? kGood : kBadLength;
    if (send_status(chip, status, now_us)) {
        rom.agent_size = size;
    }
    return false;
}

bool jump(const ChipBootRomParts& chip, uint64_t now_us) {
    const ChipBootRomState& rom = chip.boot_rom;
    const bool loaded = rom.agent_size > 0 && rom.agent_taken == rom.agent_size;
    const uint16_t status = rom.parameters[0] != kChipAgentAddress ? kBadAddress : loaded ? kGood : kNoAgent;
    if (send_status(chip, status, now_us)) {
        chip.boot_rom.jumps = true; // the status still waits for the host
    }
    return false;
}

bool act(const ChipBootRomParts& chip, size_t index, uint64_t now_us) {
    switch (chip.boot_rom.command) {
    case kWriteRegister:
        return write_register(chip, index, now_us);
    case kSendAgent:
        return send_agent(chip, index, now_us);
    case kJump:
        return jump(chip, now_us);
    default:
        send_status(chip, kGood, now_us); // the line speed has no meaning on SPI
        return false;
    }
}

void send_identifier(const ChipBootRomParts& chip, uint64_t now_us) {
    std::vector<uint8_t> response = {kReadIdentifier};
    for (size_t i = 0; i < kIdentifierSize; ++i) {
        response.push_back(static_cast<uint8_t>(i));
    }
    response.insert(response.end(), {0, 0}); // status
    send(chip, response, now_us);
}

void take_command(const ChipBootRomParts& chip, uint8_t byte, uint64_t now_us) {
    const Command* command = command_of(byte);
    if (command == nullptr) {
        send_status(chip, kUnknownCommand, now_us);
    } else if (byte == kReadIdentifier) {
        send_identifier(chip, now_us);
    } else {
        chip.boot_rom.command = byte;
        echo(chip, {byte}, now_us);
    }
}

void take_parameter(const ChipBootRomParts& chip, uint8_t byte, uint64_t now_us) {
    ChipBootRomState& rom = chip.boot_rom;
    const Command* command = command_of(rom.command);
    rom.number.push_back(byte);
    if (rom.number.size() < command->sizes[rom.parameter]) {
        return;
    }
    const size_t index = rom.parameter++;
    rom.parameters[index] = chip_load_le(rom.number.data(), rom.number.size());
    echo(chip, rom.number, now_us);
    rom.number.clear();
    if (!act(chip, index, now_us) || rom.parameter == kChipBootParameters) {
        end_command(rom);
    }
}

void take_agent_byte(const ChipBootRomParts& chip, uint8_t byte, uint64_t now_us) {
    ChipBootRomState& rom = chip.boot_rom;
    const unsigned shift = rom.agent_taken % 2 == 0 ? 0 : 8;
    rom.checksum = static_cast<uint16_t>(rom.checksum ^ byte << shift);
    ++rom.agent_taken;
    ++chip.status.download.agent_bytes;
    if (rom.agent_taken == rom.agent_size) {
        const bool wrong = chip_fault_checksum(chip.faults);
        send_word(chip, static_cast<uint16_t>(wrong ? rom.checksum ^ kChecksumFault : rom.checksum), now_us);
        send_status(chip, kGood, now_us);
    }
}

// Until all four have come in order. The first one starts again at any time; a wrong one is not answered.
void take_handshake(const ChipBootRomParts& chip, uint8_t byte, uint64_t now_us) {
    ChipBootRomState& rom = chip.boot_rom;
    const uint32_t place = byte == kHandshake[0] ? 0 : rom.handshake;
    if (byte != kHandshake[place]) {
        rom.handshake = 0;
        return;
    }
    rom.handshake = place + 1;
    const bool garbled = chip_fault_handshake(chip.faults, rom.handshake);
    send(chip, {static_cast<uint8_t>(garbled ? byte : ~byte)}, now_us);
    chip.status.download.handshakes += rom.handshake == kChipHandshakeSize ? 1 : 0;
}

} // namespace

ChipLoaderEnd chip_boot_rom_receive(const ChipBootRomParts& chip, const uint8_t* data, size_t length,
                                    uint64_t now_us) {
    const ChipBootRomState& rom = chip.boot_rom;
    if (rom.agent_taken < rom.agent_size && chip_fault_power(chip.faults, kChipAgentUpload)) {
        return ChipLoaderEnd::power_lost;
    }
    for (size_t i = 0; i < length && !rom.jumps; ++i) {
        if (rom.handshake < kChipHandshakeSize) {
            take_handshake(chip, data[i], now_us);
        } else if (rom.agent_taken < rom.agent_size) {
            take_agent_byte(chip, data[i], now_us);
        } else if (rom.command != 0) {
            take_parameter(chip, data[i], now_us);
        } else {
            take_command(chip, data[i], now_us);
        }
    }
    return rom.jumps ? ChipLoaderEnd::jump : ChipLoaderEnd::none;
}
