// Receive pool of the firmware download: what came from the download agent and is not taken yet, and how
// whole frames get there. One thread only.
#ifndef TAVOR_HDL_POOL_H
#define TAVOR_HDL_POOL_H

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

// Drops noise from the head of the pool and prints log notifications. Returns the bytes of the complete frame
// at the head, or 0.
uint32_t parsing_kite();

// Receives until a complete frame is at the head of the pool, for a second at most. expected: bytes to ask an
// SPI link for, up to kKiteFrameSize. Stores the frame's bytes in size. Returns success.
bool read_dma_to_pool(uint32_t expected, uint32_t* size);

#endif
