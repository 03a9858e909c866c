#include "chip/chip_flash.h"

#include "chip/chip.h"

#include <algorithm>

namespace {

constexpr uint8_t kErased = 0xFF;

// The flash's content, made when it is needed first.
std::vector<uint8_t>& content(Chip& chip) {
    if (chip.flash.bytes.empty()) {
        chip.flash.bytes.assign(chip.options.flash_size, kErased);
    }
    return chip.flash.bytes;
}

void note_change(ChipFlash& flash, uint32_t begin, uint32_t end) {
    const bool first = flash.changed_begin == flash.changed_end;
    flash.changed_begin = first ? begin : std::min(flash.changed_begin, begin);
    flash.changed_end = first ? end : std::max(flash.changed_end, end);
}

void set_bootable(ChipFlash& flash, bool bootable) {
    flash.bootable_changed = flash.bootable_changed || flash.bootable != bootable;
    flash.bootable = bootable;
}

bool is_block(uint32_t length) {
    return length == kChipFlashBlock || length == kChipFlashLargeBlock;
}

} // namespace

bool chip_flash_holds(const Chip& chip, uint32_t address, uint32_t length) {
    const ChipOptions& options = chip.options;
    return address >= options.flash_base && address - options.flash_base <= options.flash_size &&
           length <= options.flash_size - (address - options.flash_base);
}

ChipFlashResult chip_flash_erase(Chip& chip, uint32_t address, uint32_t length) {
    if (!is_block(length) || address % length != 0 || !chip_flash_holds(chip, address, 1)) {
        return ChipFlashResult::misplaced;
    }
    const uint32_t begin = address - chip.options.flash_base;
    const uint32_t end = std::min(chip.options.flash_size, begin + length);
    std::vector<uint8_t>& bytes = content(chip);
    std::fill(bytes.begin() + begin, bytes.begin() + end, kErased);
    set_bootable(chip.flash, false);
    note_change(chip.flash, begin, end);
    return ChipFlashResult::ok;
}

ChipFlashResult chip_flash_write(Chip& chip, uint32_t address, const uint8_t* data, uint32_t length) {
    if (!chip_flash_holds(chip, address, length)) {
        return ChipFlashResult::misplaced;
    }
    const uint32_t begin = address - chip.options.flash_base;
    uint8_t* cells = content(chip).data() + begin;
    std::transform(data, data + length, cells, cells,
                   [](uint8_t byte, uint8_t cell) { return static_cast<uint8_t>(byte & cell); });
    set_bootable(chip.flash, false);
    chip.flash.written = true;
    chip.flash.unchecked.insert(address);
    note_change(chip.flash, begin, begin + length);
    return std::equal(data, data + length, cells) ? ChipFlashResult::ok : ChipFlashResult::unerased;
}

std::vector<uint8_t> chip_flash_read(const Chip& chip, uint32_t address, uint32_t length) {
    if (chip.flash.bytes.empty()) {
        return std::vector<uint8_t>(length, kErased);
    }
    const uint8_t* cells = chip.flash.bytes.data() + (address - chip.options.flash_base);
    return {cells, cells + length};
}

void chip_flash_checked(Chip& chip, uint32_t address, uint32_t length) {
    std::set<uint32_t>& unchecked = chip.flash.unchecked;
    unchecked.erase(unchecked.lower_bound(address), unchecked.lower_bound(address + length));
}

bool chip_flash_finish(Chip& chip) {
    if (!chip.flash.unchecked.empty()) {
        return false;
    }
    if (chip.flash.written) {
        set_bootable(chip.flash, true);
    }
    return chip.flash.bootable;
}
