// One-shot timers whose callback runs on a thread of its own. A null handle is no timer: changing one gives
// -1.
#ifndef TAVOR_LOCATION_TIMER_H
#define TAVOR_LOCATION_TIMER_H

#include <csignal>
#include <cstdint>
#include <ctime>

using location_timer_callback = void (*)(sigval);

// Returns a disarmed timer, or null when the system has none left.
timer_t location_timer_create(location_timer_callback callback);

// Arms the timer ms milliseconds from now, anew if it is armed already; 0 disarms. Returns the result of
// timer_settime.
int32_t location_timer_start(timer_t timer, int32_t ms);

// The same.
int32_t location_timer_set(timer_t timer, int32_t ms);

// Disarms the timer. Returns the result of timer_settime.
int32_t location_timer_stop(timer_t timer);

// Returns 0 when armed, -1 when disarmed, null or unreadable.
int32_t location_timer_is_active(timer_t timer);

// Returns the result of timer_delete.
int32_t location_timer_delete(timer_t timer);

#endif
