// A clock that only sleeping moves, for programs whose calls of time, timespec_get, gettimeofday,
// clock_gettime and nanosleep are wrapped by the linker (tavor_fake_clock). While it is not started the real
// functions run.
#ifndef TAVOR_TESTS_FAKE_CLOCK_H
#define TAVOR_TESTS_FAKE_CLOCK_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct FakeClock {
    bool started = false;
    int64_t now_ms = 0;
    int64_t set_ms = 0;         // by how much the time of day was set: no time has passed
    std::vector<int64_t> slept; // milliseconds of each sleep, in order
    bool time_fails = false;
    bool timespec_fails = false;
    bool sleep_fails = false;
    std::function<void()> at_sleep = [] {}; // after each sleep
    int64_t between_readings_ms = 0;        // passes after each reading of the clock
};

extern FakeClock fake_clock;

// 2024-05-01 12:00:00.123 UTC
inline constexpr int64_t kFakeNoonMs = 1714564800123;

// Starts the clock at noon, in UTC, without faults and without sleeps.
void fake_clock_start();
void fake_clock_stop();

int64_t fake_clock_slept();

// Log lines of the firmware download with their stamps taken off: "[E] text". Lines without stamps stay as
// they are; a last line that is not ended is marked "<no line end>".
std::vector<std::string> without_stamps(const std::string& log);

#endif
