#include "chip/chip.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace {

constexpr uint8_t kFloatingLine = 0xFF; // what the host reads when nobody drives the line
constexpr uint8_t kOpReadStatus = 0x06;
constexpr uint32_t kStatusFrameSize = 2;

void cold_boot(Chip& chip, uint64_t now_us) {
    ++chip.status.cold_boots;
    chip.boot_us = now_us;
    chip_aiding_boot(chip, now_us);
    chip_orbit_boot(chip, now_us);
    chip_source_boot(chip, now_us);
}

bool is_downloading(const Chip& chip) {
    return chip.mode == ChipMode::boot_rom || chip.mode == ChipMode::agent;
}

// The byte that comes back whatever the host sends; nothing when a slave answers.
std::optional<uint8_t> constant_answer(const Chip& chip) {
    if (chip.faults.silence || (chip.mode != ChipMode::firmware && !is_downloading(chip))) {
        return kFloatingLine;
    }
    return chip.faults.zero ? std::optional<uint8_t>(uint8_t{0}) : std::nullopt;
}

void slave_frame(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    std::fill_n(rx, length, uint8_t{0});
    if (is_downloading(chip)) {
        chip_download_frame(chip, tx, rx, length, now_us);
    } else {
        chip_slave_frame(chip, tx, rx, length, now_us);
    }
}

void answer(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    if (!chip.faults.silence) {
        chip_download_notice(chip, tx, length, now_us);
    }
    const auto constant = constant_answer(chip);
    if (constant) {
        std::fill_n(rx, length, *constant);
    } else if (chip.faults.garbage == ChipGarbage::all) {
        std::generate_n(rx, length, [&] { return static_cast<uint8_t>(chip.random()); });
    } else {
        slave_frame(chip, tx, rx, length, now_us);
    }
    if (tx[0] == kOpReadStatus && length == kStatusFrameSize) {
        chip.slave.last_status = rx[1];
    }
}

} // namespace

void chip_init(Chip& chip, ChipOptions options) {
    chip = {};
    chip.random.seed(options.seed);
    chip.options = std::move(options);
    chip.flash.bootable = !chip.options.flash_empty;
}

void chip_power(Chip& chip, bool high, uint64_t now_us) {
    if (chip.status.powered == high) {
        return;
    }
    chip_run(chip, now_us);
    chip.status.powered = high;
    chip_download_power(chip, high, now_us);
    if (high) {
        cold_boot(chip, now_us);
    }
}

bool chip_spi_transfer(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    chip_run(chip, now_us);
    ++chip.status.transfers;
    if (chip_fault_transfer(chip.faults)) {
        ++chip.status.transfers_failed;
        return false;
    }
    if (length == 0) {
        return true;
    }
    const std::vector<uint8_t> zeros(tx == nullptr ? length : 0);
    std::vector<uint8_t> unread(rx == nullptr ? length : 0);
    answer(chip, tx == nullptr ? zeros.data() : tx, rx == nullptr ? unread.data() : rx, length, now_us);
    return true;
}

void chip_run(Chip& chip, uint64_t now_us) {
    if (chip.mode == ChipMode::firmware) {
        chip_source_run(chip, now_us);
        chip_aiding_run(chip, now_us);
        chip_orbit_run(chip, now_us);
    }
}

void chip_send(Chip& chip, const std::string& sentence) {
    if (chip_fifo_size(chip.transmit) + sentence.size() <= chip.options.tx_fifo_size) {
        chip_fifo_push(chip.transmit, sentence, false);
    }
}

std::string chip_queue(Chip& chip, const std::string& bytes) {
    if (!chip.status.powered) {
        return "the chip is off: it can't send";
    }
    if (chip.mode != ChipMode::firmware) {
        return "the chip's firmware does not run: it can't send";
    }
    if (chip_fifo_size(chip.transmit) + bytes.size() > chip.options.tx_fifo_size) {
        return "no room in the chip's transmit buffer";
    }
    chip_fifo_push(chip.transmit, bytes, false);
    return "";
}

ChipStatus chip_status(const Chip& chip) {
    ChipStatus status = chip.status;
    status.bytes_queued = chip_fifo_size(chip.transmit);
    status.interface_powered = chip_slave_powered(chip);
    status.finished = status.cold_boots > 0 && chip.source.finished;
    status.download.state = chip_download_mode_text(chip.mode);
    status.download.bootable = chip.flash.bootable;
    status.faults = chip_fault_active(chip.faults);
    return status;
}

std::vector<ChipCommand> chip_commands(const Chip& chip) {
    return {chip.commands.log.begin(), chip.commands.log.end()};
}
