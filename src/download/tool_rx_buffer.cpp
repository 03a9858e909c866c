#include "download/tool_rx_buffer.h"

#include <algorithm>
#include <cstring>

namespace {

ToolRxBuffer pool;

} // namespace

ToolRxBuffer* tool_rx_buffer_get() {
    return &pool;
}

void tool_rx_buffer_clear() {
    pool.count = 0;
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
