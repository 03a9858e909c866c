// The flash array: erased cells are 0xFF, writing only clears bits. Addresses are those of the chip, from the
// base of the flash on.
#ifndef TAVOR_BOARD_CHIP_FLASH_H
#define TAVOR_BOARD_CHIP_FLASH_H

#include <cstdint>
#include <set>
#include <vector>

inline constexpr uint32_t kChipFlashBlock =
    4096; // bytes: the smaller erase, and what one write command takes
inline constexpr uint32_t kChipFlashLargeBlock = 65536; // the larger erase

enum class ChipFlashResult : uint8_t {
    ok,
    misplaced, // outside of the flash, or an erase that is no whole block on its border
    unerased,  // the cells can't hold the data: a bit would have to be set
};

struct ChipFlash {
    uint32_t base = 0;            // address
    uint32_t size = 0;            // bytes, whole blocks of the smaller erase
    std::vector<uint8_t> bytes;   // empty while all of it is erased
    bool bootable = true;         // holds firmware that starts
    std::set<uint32_t> unchecked; // addresses of blocks written since their last good check
    bool written = false;         // a block has been written since the agent started
    // For the owner, who keeps the content: offsets of what changed (an empty range: nothing), and whether
    // bootable did.
    uint32_t changed_begin = 0;
    uint32_t changed_end = 0;
    bool bootable_changed = false;
};

// Erases a block of either size; what reaches past the end of the flash is left out. The firmware is lost.
ChipFlashResult chip_flash_erase(ChipFlash& flash, uint32_t address, uint32_t length);

// Writes at any place; bits that are 0 already stay 0, also when the result reports that.
ChipFlashResult chip_flash_write(ChipFlash& flash, uint32_t address, const uint8_t* data, uint32_t length);

// Whether the range lies in the flash.
bool chip_flash_holds(const ChipFlash& flash, uint32_t address, uint32_t length);

// A copy of a range that chip_flash_holds.
std::vector<uint8_t> chip_flash_read(const ChipFlash& flash, uint32_t address, uint32_t length);

// An image at this place has passed its check: its blocks need none any more.
void chip_flash_checked(ChipFlash& flash, uint32_t address, uint32_t length);

// The download is finished. True, and the flash is bootable, when everything that was written passed a check.
bool chip_flash_finish(ChipFlash& flash);

#endif
