// Time limits of the firmware download.
#ifndef TAVOR_HDL_WAIT_H
#define TAVOR_HDL_WAIT_H

#include "download/tool_time.h"

#include <cstdint>

// Milliseconds since *start. The clock is the wall's: when it was set back meanwhile, the wait begins anew,
// so that it ends all the same.
inline int64_t hdl_wait_elapsed(int64_t* start) {
    const int64_t now = tool_time_now_ms();
    if (now < *start) {
        *start = now;
    }
    return now - *start;
}

#endif
