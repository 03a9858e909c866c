// The clocks of the firmware download, in milliseconds: the time of day for what it reports, and one that
// nobody sets for its limits, so that a first fix that sets the time of day neither ends nor prolongs a wait.
#ifndef TAVOR_TOOL_TIME_H
#define TAVOR_TOOL_TIME_H

#include <cstdint>

// Milliseconds since the epoch.
int64_t tool_time_now_ms();

// Milliseconds that pass whatever the time of day is set to; only differences count.
int64_t tool_time_passed_ms();

// Sets the start mark to now, only if it is still unset.
void tool_time_start();

// Milliseconds since the start mark. Meaningless before the first start.
int64_t tool_time_since_start_ms();

#endif
