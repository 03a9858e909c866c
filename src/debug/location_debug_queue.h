// The hand-over from the receive thread to the transmit task. The message queue only wakes the task: the
// blocks themselves stay listed in this process until they are taken, so that nothing that another process,
// or an earlier one, puts into the queue or takes out of it, and no cancellation, can lose or forge one.
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

// Finds or creates the queue. Returns 0 or -1.
int32_t location_debug_queue_open();

// Removes the queue and frees the blocks that were not taken.
void location_debug_queue_close();

// Whether the queue is open.
bool location_debug_queue_is_open();

// A block with a copy of the data; null when there is no memory.
DebugBlockPtr location_debug_block_copy(const uint8_t* data, uint32_t length);

// The bytes of a block.
const uint8_t* location_debug_block_data(const DebugBlock* block);

// Hands the block over without waiting. Returns false when the queue is gone, or more than 64 KiB would wait
// with it; the block is freed then, and so is each further one until all that wait have been taken.
bool location_debug_queue_send(DebugBlockPtr block);

// Returns the oldest block, waits for a message while there is none. Returns null when receiving failed or
// the message was none of this process. A cancellation point.
DebugBlockPtr location_debug_queue_receive();

#endif
