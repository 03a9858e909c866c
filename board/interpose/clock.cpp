#include "interpose/clock.h"

#include "interpose/real.h"

namespace {

#ifdef __SANITIZE_THREAD__
constexpr bool kAlwaysMakesTimers = true;
#else
constexpr bool kAlwaysMakesTimers = false;
#endif

// Usable before any constructor has run.
struct ClockState {
    BoardClock hosts; // nothing set
    std::atomic<BoardClock*> chosen;
    std::atomic<bool> makes_timers;
} state;

int64_t host_clock(clockid_t clock) {
    timespec now = {};
    real<"clock_gettime", int(clockid_t, timespec*)>()(clock, &now);
    return interpose_ns_of(now);
}

} // namespace

BoardClock& interpose_clock() {
    BoardClock* chosen = state.chosen;
    return chosen == nullptr ? state.hosts : *chosen;
}

void interpose_use_clock(BoardClock* clock) {
    BoardClock& before = interpose_clock();
    state.chosen = clock;
    board_clock_wake(before); // who waits on it goes over to the new one
}

bool interpose_makes_timers() {
    return kAlwaysMakesTimers || state.makes_timers || interpose_clock_is_own();
}

void interpose_make_timers(bool make) {
    state.makes_timers = make;
}

HostTime interpose_host_time() {
    return {host_clock(CLOCK_MONOTONIC), host_clock(CLOCK_REALTIME)};
}

int64_t interpose_monotonic_ns() {
    return board_clock_now(interpose_clock(), interpose_host_time).monotonic_ns;
}

int64_t interpose_utc_ns() {
    return board_clock_now(interpose_clock(), interpose_host_time).utc_ns;
}

bool interpose_clock_is_own() {
    return interpose_clock().own != 0;
}

int64_t interpose_host_wait(int64_t board_ns) {
    return board_clock_host_wait(interpose_clock(), board_ns);
}
