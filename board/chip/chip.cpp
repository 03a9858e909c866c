#include "chip/chip.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint8_t kFloatingLine = 0xFF; // what the host reads when nobody drives the line
constexpr uint8_t kOpReadStatus = 0x06;
constexpr uint32_t kStatusFrameSize = 2;
constexpr uint64_t kUsPerMs = 1000;

// What each module works on: references into the chip, put together for one call.
ChipAidingParts aiding_of(Chip& chip) {
    return {chip.aiding, chip.options, chip.orbits, chip.transmit, chip.status};
}

ChipOrbitParts orbits_of(Chip& chip) {
    return {chip.orbits, chip.options, chip.transmit, chip.status};
}

ChipSourceParts source_of(Chip& chip) {
    return {chip.source, chip.options, chip.aiding, chip.transmit, chip.status, chip.boot_us};
}

ChipCommandParts commands_of(Chip& chip) {
    return {chip.commands, chip.transmit, chip.status, aiding_of(chip), orbits_of(chip)};
}

ChipSlaveParts slave_of(Chip& chip) {
    return {chip.slave,        chip.options, chip.faults, chip.transmit,
            commands_of(chip), chip.status,  chip.random};
}

ChipI2cParts i2c_of(Chip& chip) {
    return {chip.i2c, chip.options, chip.faults, chip.transmit, commands_of(chip), chip.status, chip.random};
}

ChipSpimParts spim_of(Chip& chip) {
    return {chip.spim, chip.options, chip.faults, chip.status, chip.random};
}

ChipBootRomParts boot_rom_of(Chip& chip) {
    return {chip.boot_rom, chip.faults, chip.spim, chip.status};
}

ChipAgentParts agent_of(Chip& chip) {
    return {chip.agent, chip.flash, chip.options, chip.faults, chip.spim, chip.status, chip.random};
}

ChipDownloadParts download_of(Chip& chip) {
    return {chip.mode, chip.options, spim_of(chip), boot_rom_of(chip), agent_of(chip)};
}

void cold_boot(Chip& chip, uint64_t now_us) {
    ++chip.status.cold_boots;
    chip.boot_us = now_us;
    chip_aiding_boot(chip.aiding, chip.status, now_us);
    chip_orbit_boot(chip.orbits, now_us);
    chip_source_boot(source_of(chip), now_us);
}

// Power is gone: everything but the flash is forgotten, and a download under way counts as cut off.
void forget(Chip& chip) {
    if (chip_download_has_chip(chip.mode) && !chip.agent.finished) {
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

// The power line has changed: the firmware starts, if there is one, and the boot ROM listens.
void switch_power(Chip& chip, bool high, uint64_t now_us) {
    forget(chip);
    if (!high) {
        chip.mode = ChipMode::off;
        return;
    }
    chip.mode = chip.flash.bootable ? ChipMode::firmware : ChipMode::empty;
    chip.listening_until_us = now_us + chip.options.boot_window_ms * kUsPerMs;
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

// A frame is about to come: decides who gets it.
void notice_frame(Chip& chip, const uint8_t* tx, uint32_t length, uint64_t now_us) {
    if (chip.listening_until_us == 0) {
        return;
    }
    const bool over = now_us >= chip.listening_until_us;
    if (!over && chip_download_begins(chip.options, tx, length)) {
        enter_boot_rom(chip);
    } else if (over || chip.mode == ChipMode::firmware) {
        chip.listening_until_us = 0;
    }
}

void download_frame(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    const ChipLoaderEnd end = chip_download_frame(download_of(chip), tx, rx, length, now_us);
    if (end == ChipLoaderEnd::jump) {
        start_agent(chip);
    } else if (end == ChipLoaderEnd::power_lost) { // silent until its power line has been low
        forget(chip);
        chip.mode = ChipMode::lost;
    }
}

// The byte that comes back whatever the host sends; nothing when a slave answers.
std::optional<uint8_t> constant_answer(const Chip& chip) {
    if (chip.faults.silence || (chip.mode != ChipMode::firmware && !chip_download_has_chip(chip.mode))) {
        return kFloatingLine;
    }
    return chip.faults.zero ? std::optional<uint8_t>(uint8_t{0}) : std::nullopt;
}

void slave_frame(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    std::fill_n(rx, length, uint8_t{0});
    if (chip_download_has_chip(chip.mode)) {
        download_frame(chip, tx, rx, length, now_us);
    } else {
        chip_slave_frame(slave_of(chip), tx, rx, length, now_us);
    }
}

void answer(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    if (!chip.faults.silence) {
        notice_frame(chip, tx, length, now_us);
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

// One SPI frame or I2C transfer begins; false: it fails.
bool transfer_begins(Chip& chip, uint64_t now_us) {
    chip_run(chip, now_us);
    ++chip.status.transfers;
    const bool fails = chip_fault_transfer(chip.faults);
    chip.status.transfers_failed += fails ? 1 : 0;
    return !fails;
}

// Whether the chip acknowledges its address on I2C.
bool acknowledges(Chip& chip, uint8_t address, uint64_t now_us) {
    if (!transfer_begins(chip, now_us) || chip.mode != ChipMode::firmware || chip.faults.silence) {
        return false;
    }
    chip.listening_until_us = 0; // the host wants the firmware
    return !chip_fault_nack(chip.faults, address) &&
           (!chip.faults.never_ready || address == kChipI2cCommandPort);
}

std::string make_backlog(Chip& chip, uint64_t now_us) {
    const auto bytes = static_cast<size_t>(std::exchange(chip.faults.backlog, 0));
    if (chip.mode != ChipMode::firmware) {
        return "the chip's firmware does not run: nothing can wait in it";
    }
    chip_source_backlog(source_of(chip), bytes, now_us);
    return "";
}

} // namespace

void chip_init(Chip& chip, ChipOptions options) {
    chip = {};
    chip.random.seed(options.seed);
    chip.options = std::move(options);
    chip.transmit.limit = chip.options.tx_fifo_size;
    chip.flash.base = chip.options.flash_base;
    chip.flash.size = chip.options.flash_size;
    chip.flash.bootable = !chip.options.flash_empty;
}

void chip_power(Chip& chip, bool high, uint64_t now_us) {
    if (chip.status.powered == high) {
        return;
    }
    chip_run(chip, now_us);
    chip.status.powered = high;
    switch_power(chip, high, now_us);
    if (high) {
        cold_boot(chip, now_us);
    }
}

bool chip_spi_transfer(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us) {
    if (!transfer_begins(chip, now_us)) {
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

std::optional<uint32_t> chip_i2c_write(Chip& chip, uint8_t address, const uint8_t* data, uint32_t length,
                                       uint64_t now_us) {
    return acknowledges(chip, address, now_us) ? chip_i2c_take(i2c_of(chip), address, data, length, now_us)
                                               : std::nullopt;
}

std::optional<uint32_t> chip_i2c_read(Chip& chip, uint8_t address, uint8_t* data, uint32_t length,
                                      uint64_t now_us) {
    return acknowledges(chip, address, now_us) ? chip_i2c_give(i2c_of(chip), address, data, length)
                                               : std::nullopt;
}

void chip_run(Chip& chip, uint64_t now_us) {
    if (chip.mode == ChipMode::firmware) {
        chip_source_run(source_of(chip), now_us);
        chip_aiding_run(aiding_of(chip), now_us);
        chip_orbit_run(orbits_of(chip), now_us);
    }
}

std::string chip_queue(Chip& chip, const std::string& bytes) {
    if (!chip.status.powered) {
        return "the chip is off: it can't send";
    }
    if (chip.mode != ChipMode::firmware) {
        return "the chip's firmware does not run: it can't send";
    }
    return chip_fifo_offer(chip.transmit, bytes) ? "" : "no room in the chip's transmit buffer";
}

ChipStatus chip_status(const Chip& chip) {
    ChipStatus status = chip.status;
    status.bytes_queued = chip_fifo_size(chip.transmit);
    status.interface_powered = chip.slave.powered;
    status.finished = status.cold_boots > 0 && chip.source.finished;
    status.download.state = chip_download_mode_text(chip.mode);
    status.download.bootable = chip.flash.bootable;
    status.faults = chip_fault_active(chip.faults);
    return status;
}

std::vector<ChipCommand> chip_commands(const Chip& chip) {
    return {chip.commands.log.begin(), chip.commands.log.end()};
}

std::string chip_fault(Chip& chip, const std::string& name, const std::string& value, uint64_t now_us) {
    std::string error = chip_fault_set(chip.faults, name, value);
    if (!error.empty()) {
        return error;
    }
    if (chip.faults.backlog > 0) {
        return make_backlog(chip, now_us);
    }
    chip.slave.powered = chip.slave.powered && !chip.faults.unpowered;
    chip.slave.excused = true;
    chip_i2c_excuse(chip.i2c);
    chip.spim.excused = true;
    return "";
}
