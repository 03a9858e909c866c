// The clock that nobody sets.
#ifndef TAVOR_MONOTONIC_H
#define TAVOR_MONOTONIC_H

#include <cstdint>
#include <ctime>

// Microseconds that pass whatever the time of day is set to; only differences count. Any thread.
inline uint64_t monotonic_us() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// The same in milliseconds.
inline int64_t monotonic_ms() {
    return static_cast<int64_t>(monotonic_us() / 1000);
}

#endif
