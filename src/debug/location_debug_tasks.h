// The two threads of the debug outlet in modes 2 and 3. Both run until they are cancelled.
#ifndef TAVOR_LOCATION_DEBUG_TASKS_H
#define TAVOR_LOCATION_DEBUG_TASKS_H

#include "debug/location_debug_mode.h"

#include <atomic>
#include <cstdint>

// What the tasks share with the threads that open, close and feed the outlet.
struct DebugOutlet {
    std::atomic<uint32_t> mode;
    std::atomic<int32_t> listen_fd; // -1 when there is none
    std::atomic<int32_t> epoll_fd;  // -1 when there is none
};

// Mirrors the queued blocks to the outlet. The argument is the DebugOutlet.
void* location_debug_tx_task(void* outlet);

// Accepts clients and forwards what an engineer types to the chip. The argument is the DebugOutlet. Returns
// only when the epoll set fails.
void* location_debug_rx_task(void* outlet);

#endif
