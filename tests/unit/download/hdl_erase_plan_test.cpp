#include "download/hdl_flash.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

using Plan = std::vector<std::pair<uint32_t, uint32_t>>; // addresses and lengths

Plan plan(uint32_t start, uint32_t length) {
    std::vector<FormatBlock> blocks(hdl_erase_plan_count(start, length), FormatBlock{1, 1, 1, 1});
    hdl_erase_plan_fill(start, length, blocks.data());
    Plan made;
    for (const FormatBlock& block : blocks) {
        EXPECT_EQ(block.sent, 0);
        EXPECT_EQ(block.acked, 0);
        made.emplace_back(block.address, block.length);
    }
    return made;
}

// count blocks of one length, one after the other.
Plan run_of(uint32_t start, uint32_t length, uint32_t count) {
    Plan made;
    for (uint32_t i = 0; i < count; ++i) {
        made.emplace_back(start + i * length, length);
    }
    return made;
}

Plan operator+(Plan a, const Plan& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace

TEST(ErasePlan, TakesLargeBlocksFromTheirBoundaryOn) {
    const struct {
        const char* what;
        uint32_t start;
        uint32_t length;
        Plan plan;
    } rows[] = {
        {"from a boundary", 0, 0x200000, run_of(0, 0x10000, 32)},
        {"small ones lead to it, and the last may reach beyond the end", 0x1000, 0x200000,
         run_of(0x1000, 0x1000, 15) + run_of(0x10000, 0x10000, 32)},
        {"a short erase takes small ones only", 0, 0x8000, run_of(0, 0x1000, 8)},
        {"one byte too short", 0x10000, 0xFFFF, run_of(0x10000, 0x1000, 16)},
        {"just long enough", 0x10000, 0x10000, run_of(0x10000, 0x10000, 1)},
        {"the end right behind the boundary", 0x1000, 0x10000,
         run_of(0x1000, 0x1000, 15) + run_of(0x10000, 0x10000, 1)},
        {"the start right before it", 0xF000, 0x11000,
         run_of(0xF000, 0x1000, 1) + run_of(0x10000, 0x10000, 1)},
        {"one byte is a block", 0x1234, 1, run_of(0x1234, 0x1000, 1)},
        {"a byte behind a block is another", 0x1000, 0x1001, run_of(0x1000, 0x1000, 2)},
        {"none is none", 0x1000, 0, {}},
        {"off the small grid no boundary is met", 0x100, 0x10000, run_of(0x100, 0x1000, 16)},
        {"the last large block", 0xFFFF0000, 0x10000, run_of(0xFFFF0000, 0x10000, 1)},
        {"the addresses end behind it", 0xFFFF0000, 0xFFFFFFFF, run_of(0xFFFF0000, 0x10000, 1)},
        {"and behind the last small one", 0xFFFFE000, 0x8000, run_of(0xFFFFE000, 0x1000, 2)},
        {"off the grid too", 0xFFFFF800, 0x8000, run_of(0xFFFFF800, 0x1000, 1)},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(plan(row.start, row.length), row.plan) << row.what;
    }
    EXPECT_EQ(hdl_erase_plan_count(0, 0xFFFFFFFF), 65536U);
    EXPECT_EQ(hdl_erase_plan_count(1, 0xFFFFFFFF), 0x100000U);
    EXPECT_EQ(plan(0, 0xFFFFFFFF).back(), std::make_pair(0xFFFF0000U, 0x10000U));
}
