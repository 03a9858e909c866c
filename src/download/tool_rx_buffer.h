// Receive pool of the firmware download: bytes in order, one thread only.
#ifndef TAVOR_TOOL_RX_BUFFER_H
#define TAVOR_TOOL_RX_BUFFER_H

#include <cstdint>

inline constexpr uint32_t kToolRxBufferSize = 16448; // bytes

struct ToolRxBuffer {
    uint32_t count; // bytes in data, from its start
    uint8_t data[kToolRxBufferSize];
};

// The one pool of the process.
ToolRxBuffer* tool_rx_buffer_get();

// Empties the pool.
void tool_rx_buffer_clear();

// Appends n bytes. What does not fit is not taken at all: returns whether it fitted.
bool tool_rx_buffer_append(ToolRxBuffer* buffer, const uint8_t* data, uint32_t n);

// Drops the first n bytes, all when there are fewer. Returns the bytes that remain.
uint32_t tool_rx_buffer_consume(ToolRxBuffer* buffer, uint32_t n);

#endif
