// The clock of the firmware download: the time of day, in milliseconds, and one that nobody sets.
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
