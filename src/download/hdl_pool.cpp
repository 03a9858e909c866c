#include "download/hdl_pool.h"

#include "base/free_block.h"
#include "download/hdl_kite.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"
#include "download/tool_time.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int64_t kFrameLimitMs = 999;
constexpr int64_t kInstantRoundMs = 1;
constexpr uint32_t kBadLengthSkip = 2; // bytes
constexpr uint32_t kLogTextSpare = 2;  // zero bytes after a log text

struct State {
    ToolRxBuffer pool;
    uint8_t received[kKiteFrameSize]; // by the last receive
} state;

// The text may hold anything: it ends at its first NUL and is never a format.
void print_agent_log(ToolRxBuffer* pool, uint32_t size) {
    const uint32_t n = kite_log_text_size(size);
    const std::unique_ptr<char, FreeBlock> text(static_cast<char*>(calloc(n + kLogTextSpare, 1)));
    if (text == nullptr) {
        tool_log_error("parsing_kite malloc con fail\n");
        return;
    }
    memcpy(text.get(), pool->data + kKiteLogTextAt, n);
    tool_log_info("[DA Log] %s\n", text.get());
    tool_rx_buffer_consume(pool, size);
}

enum class Arrival { kNothing, kPooled, kOverflow };

Arrival receive_to_pool(ToolRxBuffer* pool, uint32_t expected) {
    const uint32_t wanted = g_download_settings.link_type == HDL_LINK_SPI ? expected : kKiteFrameSize;
    const uint32_t n = hdl_transport_receive(state.received, wanted);
    // Kept: a pool that is filled to its last byte counts as overflown
    if (pool->count + n >= kToolRxBufferSize || !tool_rx_buffer_append(pool, state.received, n)) {
        return Arrival::kOverflow;
    }
    memset(state.received, 0, n);
    return pool->count == 0 ? Arrival::kNothing : Arrival::kPooled;
}

// Returns the bytes of the complete frame at the head of the pool, or 0.
uint32_t receive_once(ToolRxBuffer* pool, uint32_t expected) {
    const Arrival arrival = receive_to_pool(pool, expected);
    if (arrival == Arrival::kOverflow) {
        tool_log_error("read_dma_to_pool overflow, need to clear rx pool!\n");
        tool_rx_buffer_clear();
    }
    return arrival == Arrival::kPooled ? parsing_kite() : 0;
}

} // namespace

ToolRxBuffer* tool_rx_buffer_get() {
    return &state.pool;
}

void tool_rx_buffer_clear() {
    state.pool.count = 0;
}

bool tool_rx_buffer_append(ToolRxBuffer* buffer, const uint8_t* data, uint32_t n) {
    if (n > kToolRxBufferSize - buffer->count) {
        return false;
    }
    if (n > 0) {
        memmove(buffer->data + buffer->count, data, n);
    }
    buffer->count += n;
    return true;
}

uint32_t tool_rx_buffer_consume(ToolRxBuffer* buffer, uint32_t n) {
    const uint32_t dropped = std::min(n, buffer->count);
    buffer->count -= dropped;
    memmove(buffer->data, buffer->data + dropped, buffer->count);
    return buffer->count;
}

uint32_t parsing_kite() {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    tool_rx_buffer_consume(pool, kite_noise(pool->data, pool->count));
    if (pool->count < kKiteHeadSize) {
        return 0;
    }
    const uint32_t size = kite_announced_size(pool->data);
    if (size > kKiteFrameSize) {
        tool_rx_buffer_consume(pool, kBadLengthSkip);
        return 0;
    }
    if (pool->count < size) {
        return 0;
    }
    if (kite_is_log(pool->data, size)) {
        print_agent_log(pool, size);
        return 0;
    }
    return size;
}

bool read_dma_to_pool(uint32_t expected, uint32_t* size) {
    if (expected > kKiteFrameSize) {
        return false;
    }
    ToolRxBuffer* pool = tool_rx_buffer_get();
    const int64_t start = tool_time_passed_ms();
    for (int64_t elapsed = 0; elapsed <= kFrameLimitMs; elapsed = tool_time_passed_ms() - start) {
        const uint32_t found = receive_once(pool, expected);
        if (found != 0) {
            *size = found;
            return true;
        }
        if (hdl_progress_given_up()) {
            return false;
        }
        if (tool_time_passed_ms() - start == elapsed) {
            tool_sleep_ms(kInstantRoundMs); // a link that fails at once would fill the log
        }
    }
    return false;
}
