// The hand-over from the receive thread to the transmit task. The message queue carries tokens only: the
// blocks themselves stay listed in this process until they are taken, so that nothing that another process
// puts into the queue or takes out of it, and no cancellation, can lose or forge one.
#ifndef TAVOR_LOCATION_DEBUG_QUEUE_H
#define TAVOR_LOCATION_DEBUG_QUEUE_H

#include "base/free_block.h"

#include <cstdint>
#include <memory>

// A heap copy of received bytes; length bytes follow the record.
struct DebugBlock {
    DebugBlock* next;
    uint32_t length;
};

using DebugBlockPtr = std::unique_ptr<DebugBlock, FreeBlock>;

// Forgets the queue, for the start of the process.
void location_debug_queue_init();

// Finds or creates the queue, and throws away what an earlier process left in it. Returns 0 or -1.
int32_t location_debug_queue_open();

// Removes the queue and frees the blocks that were not taken.
void location_debug_queue_close();

// Whether the queue is open, and whether it is open and holds no message.
bool location_debug_queue_is_open();
bool location_debug_queue_is_empty();

// A block with a copy of the data; null when there is no memory.
DebugBlockPtr location_debug_block_copy(const uint8_t* data, uint32_t length);

// The bytes of a block.
const uint8_t* location_debug_block_data(const DebugBlock* block);

// Hands the block over without waiting. Returns false when the queue can't take it, or holds more than 64 KiB
// with it; the block is freed then.
bool location_debug_queue_send(DebugBlockPtr block);

// Waits for a message. Returns its block, null when receiving failed or the message is none of this process.
// A cancellation point.
DebugBlockPtr location_debug_queue_receive();

#endif
