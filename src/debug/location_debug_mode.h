// What the debug outlet can be.
#ifndef TAVOR_LOCATION_DEBUG_MODE_H
#define TAVOR_LOCATION_DEBUG_MODE_H

#include <cstdint>

enum location_debug_mode : uint32_t {
    DEBUG_MODE_OFF = 0,
    DEBUG_MODE_FILE = 1,
    DEBUG_MODE_SERIAL = 2,
    DEBUG_MODE_TCP = 3,
};

#endif
