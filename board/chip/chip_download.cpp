#include "chip/chip_download.h"

#include "chip/chip.h"
#include "chip/chip_bytes.h"

#include <algorithm>
#include <vector>

namespace {

constexpr uint64_t kUsPerMs = 1000;

// The host's bytes in the boot ROM's order of bits.
std::vector<uint8_t> as_received(const Chip& chip, const uint8_t* tx, uint32_t length) {
    std::vector<uint8_t> bytes(tx, tx + length);
    if (chip.options.boot_mirrored) {
        std::transform(bytes.begin(), bytes.end(), bytes.begin(), chip_mirrored);
    }
    return bytes;
}

bool is_downloading(const Chip& chip) {
    return chip.mode == ChipMode::boot_rom || chip.mode == ChipMode::agent;
}

// What the chip holds without power: the flash alone.
void forget(Chip& chip) {
    if (is_downloading(chip) && !chip.agent.finished) {
        chip.status.download.result = "cut off";
    }
    chip_fifo_clear(chip.transmit);
    chip.slave = {};
    chip.i2c = {};
    chip.commands.line.clear();
    chip.spim = {};
    chip.boot_rom = {};
    chip.agent = {};
    chip.listening_until_us = 0;
}

void enter_boot_rom(Chip& chip) {
    forget(chip);
    chip.spim.excused = chip_fault_disturbs(chip.faults);
    chip.mode = ChipMode::boot_rom;
    ++chip.status.download.started;
    chip.status.download.result = "under way";
}

void start_agent(Chip& chip) {
    chip.mode = ChipMode::agent;
    chip.agent = {};
    chip.flash.unchecked.clear();
    chip.flash.written = false;
}

// A block has come through the download transport.
void receive(Chip& chip, const std::vector<uint8_t>& block, uint64_t now_us) {
    chip.status.download.bytes_received += block.size();
    const ChipLoaderEnd end = chip.mode == ChipMode::boot_rom
                                  ? chip_boot_rom_receive(chip, block.data(), block.size(), now_us)
                                  : chip_agent_receive(chip, block.data(), block.size(), now_us);
    if (end == ChipLoaderEnd::jump) {
        start_agent(chip);
    } else if (end == ChipLoaderEnd::power_lost) { // silent until its power line has been low
        forget(chip);
        chip.mode = ChipMode::lost;
    }
}

} // namespace

void chip_download_power(Chip& chip, bool high, uint64_t now_us) {
    forget(chip);
    if (!high) {
        chip.mode = ChipMode::off;
        return;
    }
    chip.mode = chip.flash.bootable ? ChipMode::firmware : ChipMode::empty;
    chip.listening_until_us = now_us + chip.options.boot_window_ms * kUsPerMs;
}

void chip_download_notice(Chip& chip, const uint8_t* tx, uint32_t length, uint64_t now_us) {
    if (chip.listening_until_us == 0) {
        return;
    }
    const bool over = now_us >= chip.listening_until_us;
    if (!over && chip_spim_is_first_frame(as_received(chip, tx, length).data(), length)) {
        enter_boot_rom(chip);
    } else if (over || chip.mode == ChipMode::firmware) {
        chip.listening_until_us = 0;
    }
}

void chip_download_frame(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    chip_spim_frame(chip, as_received(chip, tx, length).data(), rx, length, now_us);
    const std::vector<uint8_t> block = std::move(chip.spim.taken);
    chip.spim.taken.clear();
    if (!block.empty()) {
        receive(chip, block, now_us);
    }
    if (chip.options.boot_mirrored) {
        std::transform(rx, rx + length, rx, chip_mirrored);
    }
}

const char* chip_download_mode_text(ChipMode mode) {
    switch (mode) {
    case ChipMode::off:
        return "off";
    case ChipMode::firmware:
        return "firmware";
    case ChipMode::empty:
        return "no firmware";
    case ChipMode::boot_rom:
        return "boot ROM";
    case ChipMode::agent:
        return "agent";
    default:
        return "power lost";
    }
}
