#include "debug/location_debug.h"

#include <atomic>

namespace {

struct DebugPortState {
    std::atomic<uint32_t> mode;
} state;

} // namespace

void location_debug_init() {
    state.mode = DEBUG_MODE_OFF;
}

int32_t location_debug_start() {
    return 0;
}

void location_debug_close() {}

void location_debug_stop() {
    location_debug_close();
    state.mode = DEBUG_MODE_OFF;
}

int32_t location_debug_set_mode(uint32_t mode) {
    if (mode == state.mode) {
        return 0;
    }
    location_debug_close();
    state.mode = mode;
    return location_debug_start();
}

void location_debug_handle(const uint8_t* data, uint32_t length) {
    (void)data;
    (void)length;
}
