// Time limits of the firmware download.
#ifndef TAVOR_HDL_WAIT_H
#define TAVOR_HDL_WAIT_H

#include "download/tool_time.h"

#include <cstdint>

// Longer than a round of any wait takes: the longest, an echo over a slave that hardly wakes, takes 97 s.
inline constexpr int64_t kLongestRoundMs = 120'000;

// A wait that is looked at once a round.
struct HdlWait {
    int64_t start;
    int64_t last; // when it was looked at
};

inline HdlWait hdl_wait_start() {
    const int64_t now = tool_time_now_ms();
    return {now, now};
}

// Milliseconds since the start. The clock is the time of day and may be set meanwhile: back, or further
// forward than a round can take, begins the wait anew, so that it neither lasts for ever nor ends at once.
inline int64_t hdl_wait_elapsed(HdlWait* wait) {
    const int64_t now = tool_time_now_ms();
    if (now < wait->last || now - wait->last > kLongestRoundMs) {
        wait->start = now;
    }
    wait->last = now;
    return now - wait->start;
}

#endif
