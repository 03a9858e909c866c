// The clock of an interposed program.
#ifndef TAVOR_BOARD_PROGRAM_CLOCK_H
#define TAVOR_BOARD_PROGRAM_CLOCK_H

#include "interpose/board_clock.h"

#include <ctime>

inline constexpr int64_t kNsPerSecond = 1000000000;

// The program's clock; the host's until another one is chosen.
BoardClock& interpose_clock();

// Chooses the clock, null: the host's. It must live as long as other threads may look at it.
void interpose_use_clock(BoardClock* clock);

// Whether the program's timers are made by the interposer and run on the program's clock. So it is for every
// timer of a program on a board, in a build for ThreadSanitizer (the C library's timer threads are unknown to
// it and crash it), while the clock is not the host's, and when a test asks for it.
bool interpose_makes_timers();
void interpose_make_timers(bool make);

// What the host's clocks say, past the replaced functions.
HostTime interpose_host_time();

// The program's clocks now.
int64_t interpose_monotonic_ns();
int64_t interpose_utc_ns();

// Whether the program's clock is another than the host's.
bool interpose_clock_is_own();

// Host nanoseconds of a wait for board_ns of the program's clock.
int64_t interpose_host_wait(int64_t board_ns);

inline int64_t interpose_ns_of(const timespec& time) {
    return time.tv_sec * kNsPerSecond + time.tv_nsec;
}

inline timespec interpose_timespec_of(int64_t ns) {
    return {ns / kNsPerSecond, static_cast<long>(ns % kNsPerSecond)};
}

#endif
