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

TEST_F(RxBuffer, AppendsAtItsEndAndConsumesFromTheFront) {
    EXPECT_TRUE(append({1, 2}));
    EXPECT_TRUE(append({}));
    EXPECT_TRUE(append({3, 4}));
    EXPECT_EQ(tool_rx_buffer_consume(pool, 1), 3U);
    EXPECT_EQ(tool_rx_buffer_consume(pool, 0), 3U);
    EXPECT_EQ(held(), (Bytes{2, 3, 4}));
    EXPECT_EQ(tool_rx_buffer_consume(pool, 3), 0U);
    EXPECT_EQ(held(), Bytes{}) << "all of it";
    append({1, 2, 3});
    EXPECT_EQ(tool_rx_buffer_consume(pool, 4), 0U);
    EXPECT_EQ(held(), Bytes{}) << "more than it held";
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
