// The multiplexer over a bus whose slave is the input.
#ifndef TAVOR_TESTS_HOSTILE_MUX_H
#define TAVOR_TESTS_HOSTILE_MUX_H

#include "fuzz.h"
#include "interpose/local.h"
#include "mux/host_mux.h"

#include <pthread.h>
#include <vector>

inline void require_free(pthread_mutex_t* mutex) {
    require(pthread_mutex_trylock(mutex) == 0, "the mutex stayed taken");
    pthread_mutex_unlock(mutex);
}

// Receives and sends with buffers that are exactly as long as they say; calls begin and end around each.
template <typename Begin, typename End> void run_operations(host_mux_handle* handle, Begin begin, End end) {
    for (const uint32_t capacity : {1U, 100U, 4095U, 6000U}) {
        for (const bool sends : {false, true}) {
            std::vector<uint8_t> buffer(capacity);
            uint32_t length = capacity;
            begin();
            const int32_t result = sends ? host_mux_tx(handle, buffer.data(), &length)
                                         : host_mux_rx(handle, buffer.data(), &length);
            require(result != 0 || length <= capacity, "more was moved than the buffer holds");
            end();
        }
    }
}

#endif
