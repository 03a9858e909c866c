#include "base/stop_lock.h"

#include "base/stop_request.h"

#include <ctime>

namespace {

constexpr long kRoundNs = 50'000'000;
constexpr long kNsPerSecond = 1'000'000'000;
#ifdef __SANITIZE_THREAD__
constexpr clockid_t kRoundClock = CLOCK_REALTIME; // ThreadSanitizer knows no wait on another clock
#else
constexpr clockid_t kRoundClock = CLOCK_MONOTONIC; // setting the time of day must not stretch a round
#endif

timespec end_of_round() {
    timespec end{};
    clock_gettime(kRoundClock, &end);
    end.tv_nsec += kRoundNs;
    if (end.tv_nsec >= kNsPerSecond) {
        end.tv_nsec -= kNsPerSecond;
        ++end.tv_sec;
    }
    return end;
}

} // namespace

bool stop_lock_round(pthread_mutex_t* mutex) {
    const timespec end = end_of_round();
#ifdef __SANITIZE_THREAD__
    return pthread_mutex_timedlock(mutex, &end) == 0;
#else
    return pthread_mutex_clocklock(mutex, kRoundClock, &end) == 0;
#endif
}

bool stop_lock_take(pthread_mutex_t* mutex) {
    while (!stop_lock_round(mutex)) {
        if (stop_request_pending()) {
            return false;
        }
    }
    return true;
}
