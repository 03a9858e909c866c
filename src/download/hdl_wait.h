// Time limits of the firmware download.
#ifndef TAVOR_HDL_WAIT_H
#define TAVOR_HDL_WAIT_H

#include "download/tool_time.h"

#include <cstdint>

// By how much the time of day may run ahead of the time that passes in one round: two readings are not taken
// at once, and a clock that is being adjusted runs a little faster.
inline constexpr int64_t kClockSlackMs = 100;

// A wait that is looked at once a round.
struct HdlWait {
    int64_t start;
    int64_t last;   // when it was looked at
    int64_t passed; // the same on the clock that nobody sets
};

// Begins a wait: now, on both clocks.
inline HdlWait hdl_wait_start() {
    const int64_t now = tool_time_now_ms();
    return {now, now, tool_time_passed_ms()};
}

// Milliseconds since the start. The clock is the time of day and may be set meanwhile: back, or further
// forward than the round took, begins the wait anew, so that it neither lasts for ever nor ends at once.
inline int64_t hdl_wait_elapsed(HdlWait* wait) {
    const HdlWait now = hdl_wait_start();
    const int64_t round = now.last - wait->last;
    if (round < 0 || round > now.passed - wait->passed + kClockSlackMs) {
        wait->start = now.start;
    }
    wait->last = now.last;
    wait->passed = now.passed;
    return now.last - wait->start;
}

#endif
