#include "chip/chip_download.h"

#include "chip/chip_bytes.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace {

// The host's bytes in the boot ROM's order of bits.
std::vector<uint8_t> as_received(const ChipOptions& options, const uint8_t* tx, uint32_t length) {
    std::vector<uint8_t> bytes(tx, tx + length);
    if (options.boot_mirrored) {
        std::transform(bytes.begin(), bytes.end(), bytes.begin(), chip_mirrored);
    }
    return bytes;
}

// A block has come through the download transport.
ChipLoaderEnd receive(const ChipDownloadParts& chip, const std::vector<uint8_t>& block, uint64_t now_us) {
    chip.spim.status.download.bytes_received += block.size();
    return chip.mode == ChipMode::boot_rom
               ? chip_boot_rom_receive(chip.boot_rom, block.data(), block.size(), now_us)
               : chip_agent_receive(chip.agent, block.data(), block.size(), now_us);
}

} // namespace

bool chip_download_has_chip(ChipMode mode) {
    return mode == ChipMode::boot_rom || mode == ChipMode::agent;
}

bool chip_download_begins(const ChipOptions& options, const uint8_t* tx, uint32_t length) {
    return chip_spim_is_first_frame(as_received(options, tx, length).data(), length);
}

ChipLoaderEnd chip_download_frame(const ChipDownloadParts& chip, const uint8_t* tx, uint8_t* rx,
                                  uint32_t length, uint64_t now_us) {
    chip_spim_frame(chip.spim, as_received(chip.options, tx, length).data(), rx, length, now_us);
    const std::vector<uint8_t> block = std::exchange(chip.spim.spim.taken, {});
    if (chip.options.boot_mirrored) {
        std::transform(rx, rx + length, rx, chip_mirrored);
    }
    return block.empty() ? ChipLoaderEnd::none : receive(chip, block, now_us);
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
