#include "link/host_mux_lock.h"

#include <atomic>
#include <ctime>
#include <unistd.h>

namespace {

constexpr useconds_t kRoundUs = 5000;
constexpr useconds_t kLetInUs = 100;
constexpr long kTakeRoundNs = 50'000'000;
constexpr long kNsPerSecond = 1'000'000'000;
#ifdef __SANITIZE_THREAD__
constexpr clockid_t kTakeClock = CLOCK_REALTIME; // ThreadSanitizer knows no wait on another clock
#else
constexpr clockid_t kTakeClock = CLOCK_MONOTONIC; // setting the time of day must not stretch a round
#endif

struct State {
    std::atomic<int> stops{0};
    std::atomic<int> waiting{0}; // threads that wait for a mutex
} state;

// The outermost hold of this thread remembers what its caller had.
struct Held {
    int depth = 0;
    int callers_state = PTHREAD_CANCEL_ENABLE;
};
thread_local Held held;

struct Waiting {
    Waiting() {
        state.waiting.fetch_add(1);
    }
    ~Waiting() {
        state.waiting.fetch_sub(1);
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
};

void offer_cancellation() {
    if (held.depth == 0) {
        pthread_testcancel();
        return;
    }
    pthread_setcancelstate(held.callers_state, nullptr);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

timespec end_of_take_round() {
    timespec end{};
    clock_gettime(kTakeClock, &end);
    end.tv_nsec += kTakeRoundNs;
    if (end.tv_nsec >= kNsPerSecond) {
        end.tv_nsec -= kNsPerSecond;
        ++end.tv_sec;
    }
    return end;
}

bool take_within_a_round(port_platform_mutex mutex) {
    const timespec end = end_of_take_round();
#ifdef __SANITIZE_THREAD__
    return pthread_mutex_timedlock(mutex, &end) == 0;
#else
    return pthread_mutex_clocklock(mutex, kTakeClock, &end) == 0;
#endif
}

} // namespace

void host_mux_stop_begin() {
    state.stops.fetch_add(1);
}

void host_mux_stop_end() {
    state.stops.fetch_sub(1);
}

bool host_mux_stop_pending() {
    return state.stops.load() > 0;
}

bool host_mux_next_round() {
    if (host_mux_stop_pending()) {
        return false;
    }
    usleep(kRoundUs); // short enough to be sat out: cancellation takes effect behind it
    offer_cancellation();
    return !host_mux_stop_pending();
}

bool host_mux_take(port_platform_mutex mutex) {
    if (mutex == nullptr) {
        return false;
    }
    if (state.waiting.load() > 0) {
        usleep(kLetInUs); // who gives and takes again at once would never let the waiting thread in
    }
    if (pthread_mutex_trylock(mutex) == 0) {
        return true;
    }
    const Waiting waiting;
    while (!take_within_a_round(mutex)) {
        offer_cancellation();
    }
    return true;
}

HostMuxCancelHold::HostMuxCancelHold() : previous_state(PTHREAD_CANCEL_ENABLE) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_state);
    if (held.depth++ == 0) {
        held.callers_state = previous_state;
    }
}

HostMuxCancelHold::~HostMuxCancelHold() {
    --held.depth;
    pthread_setcancelstate(previous_state, nullptr);
}
