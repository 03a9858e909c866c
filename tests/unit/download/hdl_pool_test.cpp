#include "download/hdl_pool.h"
#include "support/bytes.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace {

struct RxBuffer : testing::Test {
    RxBuffer() {
        tool_rx_buffer_clear();
    }
    Bytes held() const {
        return {pool->data, pool->data + pool->count};
    }
    bool append(const Bytes& bytes) const {
        return tool_rx_buffer_append(pool, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    ToolRxBuffer* pool = tool_rx_buffer_get();
};

} // namespace

TEST_F(RxBuffer, AppendsBehindWhatItHolds) {
    EXPECT_TRUE(append({1, 2}));
    EXPECT_TRUE(append({}));
    EXPECT_TRUE(append({3}));
    EXPECT_EQ(held(), (Bytes{1, 2, 3}));
}

TEST_F(RxBuffer, ConsumesFromTheFront) {
    append({1, 2, 3, 4});
    EXPECT_EQ(tool_rx_buffer_consume(pool, 3), 1U);
    EXPECT_EQ(held(), (Bytes{4}));
    EXPECT_EQ(tool_rx_buffer_consume(pool, 0), 1U);
    EXPECT_EQ(held(), (Bytes{4}));
}

TEST_F(RxBuffer, ConsumingMoreThanItHoldsLeavesItEmpty) {
    append({1, 2, 3});
    EXPECT_EQ(tool_rx_buffer_consume(pool, 4), 0U);
    EXPECT_EQ(held(), Bytes{});
}

TEST_F(RxBuffer, ClearEmptiesIt) {
    append({1});
    tool_rx_buffer_clear();
    EXPECT_EQ(held(), Bytes{});
}

TEST_F(RxBuffer, TakesNothingOfWhatDoesNotFit) {
    append(Bytes(kToolRxBufferSize - 2, 7));
    EXPECT_FALSE(append({1, 2, 3}));
    EXPECT_EQ(held(), Bytes(kToolRxBufferSize - 2, 7));
    EXPECT_TRUE(append({1, 2}));
    EXPECT_FALSE(append({3}));
    const uint8_t byte = 1;
    EXPECT_FALSE(tool_rx_buffer_append(pool, &byte, UINT32_MAX));
    EXPECT_EQ(pool->count, kToolRxBufferSize);
}
