#include "mux/host_mux_lock.h"

#include "base/stop_request.h"

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

bool host_mux_next_round() {
    if (stop_mark_raised()) {
        return false;
    }
    usleep(kRoundUs); // short enough to be sat out: cancellation takes effect behind it
    offer_cancellation();
    return !stop_mark_raised();
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

bool host_mux_take_unless_stopped(port_platform_mutex mutex) {
    while (!take_within_a_round(mutex)) {
        if (stop_mark_raised()) {
            return false;
        }
    }
    return true;
}

HostMuxCancelHold::HostMuxCancelHold() {
    if (held.depth++ == 0) {
        held.callers_state = hold.previous_state;
    }
}

HostMuxCancelHold::~HostMuxCancelHold() {
    --held.depth;
}
