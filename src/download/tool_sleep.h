// Sleeps of the firmware download.
#ifndef TAVOR_TOOL_SLEEP_H
#define TAVOR_TOOL_SLEEP_H

#include <cstdint>

// Sleeps ms milliseconds; an interrupted sleep is not resumed. A value that can't be slept is logged.
void tool_sleep_ms(int64_t ms);

#endif
