// Seconds and microseconds as other programs and libraries of this system have them: their fields have the
// size that the C library gives time_t unless told otherwise. That is 4 bytes on some 32-bit systems, where
// this project's own times have 8.
#ifndef TAVOR_RELAY_SYSTEM_TIME_H
#define TAVOR_RELAY_SYSTEM_TIME_H

#include <cstdint>

#if TAVOR_SYSTEM_TIME_SIZE == 4
using SystemTimeField = int32_t;
#else
using SystemTimeField = int64_t;
#endif

struct SystemTimeval {
    SystemTimeField seconds;
    SystemTimeField microseconds; // less than a second
};

#endif
