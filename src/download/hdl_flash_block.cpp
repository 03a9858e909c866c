#include "download/hdl_flash_block.h"

#include <algorithm>

namespace {

constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

struct Walk {
    uint64_t address;
    uint64_t end;
    bool large_allowed; // kept: an erase shorter than a large block is made of small ones only
};

Walk walk_start(uint32_t start, uint32_t length) {
    return {start, std::min(uint64_t{start} + length, kAddressEnd), length >= kFlashLargeBlockSize};
}

// Small blocks up to the first large boundary, large ones from there on: they stay on their boundary.
uint32_t walk_length(const Walk& walk) {
    const bool large = walk.large_allowed && walk.address % kFlashLargeBlockSize == 0;
    return large ? kFlashLargeBlockSize : kFlashBlockSize;
}

} // namespace

uint32_t hdl_erase_plan_count(uint32_t start, uint32_t length) {
    uint32_t count = 0;
    for (Walk walk = walk_start(start, length); walk.address < walk.end; walk.address += walk_length(walk)) {
        ++count;
    }
    return count;
}

void hdl_erase_plan_fill(uint32_t start, uint32_t length, FormatBlock* blocks) {
    for (Walk walk = walk_start(start, length); walk.address < walk.end; walk.address += walk_length(walk)) {
        *blocks++ = {static_cast<uint32_t>(walk.address), walk_length(walk), 0, 0};
    }
}
