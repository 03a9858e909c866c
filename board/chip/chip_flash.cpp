#include "chip/chip_flash.h"

#include <algorithm>

namespace {

constexpr uint8_t kErased = 0xFF;

// The flash's content, made when it is needed first.
std::vector<uint8_t>& content(ChipFlash& flash) {
    if (flash.bytes.empty()) {
        flash.bytes.assign(flash.size, kErased);
    }
    return flash.bytes;
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

bool chip_flash_holds(const ChipFlash& flash, uint32_t address, uint32_t length) {
    return address >= flash.base && address - flash.base <= flash.size &&
           length <= flash.size - (address - flash.base);
}

ChipFlashResult chip_flash_erase(ChipFlash& flash, uint32_t address, uint32_t length) {
    if (!is_block(length) || address % length != 0 || !chip_flash_holds(flash, address, 1)) {
        return ChipFlashResult::misplaced;
    }
    const uint32_t begin = address - flash.base;
    const uint32_t end = std::min(flash.size, begin + length);
    std::vector<uint8_t>& bytes = content(flash);
    std::fill(bytes.begin() + begin, bytes.begin() + end, kErased);
    set_bootable(flash, false);
    note_change(flash, begin, end);
    return ChipFlashResult::ok;
}

ChipFlashResult chip_flash_write(ChipFlash& flash, uint32_t address, const uint8_t* data, uint32_t length) {
    if (!chip_flash_holds(flash, address, length)) {
        return ChipFlashResult::misplaced;
    }
    const uint32_t begin = address - flash.base;
    uint8_t* cells = content(flash).data() + begin;
    std::transform(data, data + length, cells, cells,
                   [](uint8_t byte, uint8_t cell) { return static_cast<uint8_t>(byte & cell); });
    set_bootable(flash, false);
    flash.written = true;
    flash.unchecked.insert(address);
    note_change(flash, begin, begin + length);
    return std::equal(data, data + length, cells) ? ChipFlashResult::ok : ChipFlashResult::unerased;
}

std::vector<uint8_t> chip_flash_read(const ChipFlash& flash, uint32_t address, uint32_t length) {
    if (flash.bytes.empty()) {
        return std::vector<uint8_t>(length, kErased);
    }
    const uint8_t* cells = flash.bytes.data() + (address - flash.base);
    return {cells, cells + length};
}

void chip_flash_checked(ChipFlash& flash, uint32_t address, uint32_t length) {
    std::set<uint32_t>& unchecked = flash.unchecked;
    unchecked.erase(unchecked.lower_bound(address), unchecked.lower_bound(address + length));
}

bool chip_flash_finish(ChipFlash& flash) {
    if (!flash.unchecked.empty()) {
        return false;
    }
    if (flash.written) {
        set_bootable(flash, true);
    }
    return flash.bootable;
}
