// Clocks and sleeps of the firmware download. The texts live in static buffers: one thread only.
#ifndef TAVOR_TOOL_TIME_H
#define TAVOR_TOOL_TIME_H

#include <cstdint>

// Local wall-clock time as "2024-05-01 12:00:00.123", valid until the next call; null when it can't be told.
const char* tool_log_timestamp();

// "[   1.234]": seconds since tool_time_start, valid until the next call. Meaningless before the first start.
const char* tool_log_elapsed();

// Sets the start mark to now, only if it is still unset.
void tool_time_start();

// Milliseconds since the epoch.
int64_t tool_time_now_ms();

// Sleeps ms milliseconds; an interrupted sleep is not resumed. A value that can't be slept is logged.
void tool_sleep_ms(int64_t ms);

#endif
