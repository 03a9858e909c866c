// Replaced functions that tell the time or let it pass.
#undef _FORTIFY_SOURCE

#include "interpose/clock.h"
#include "interpose/hook.h"

#include <algorithm>
#include <climits>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kLongestPauseNs =
    20000000; // of the host, before the clock is looked at anew: it may have been put forward

bool is_utc(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool is_monotonic(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_BOOTTIME;
}

// Sleeps until the program's monotonic clock has reached end_ns. A cancellation point. Returns 0 or EINTR.
int sleep_until(int64_t end_ns) {
    const int before = errno;
    for (;;) {
        const int64_t left = end_ns - interpose_monotonic_ns();
        if (left <= 0) {
            pthread_testcancel();
            return 0;
        }
        const timespec pause = interpose_timespec_of(std::min(interpose_host_wait(left), kLongestPauseNs));
        if (real<"nanosleep", int(const timespec*, timespec*)>()(&pause, nullptr) != 0) {
            errno = before;
            return EINTR;
        }
    }
}

bool is_valid(const timespec& time) {
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kNsPerSecond;
}

// Sleeps for a time of the program's clock; what is left of it goes to left when a signal came.
int sleep_for(const timespec& time, timespec* left) {
    if (!is_valid(time)) {
        return EINVAL;
    }
    const int64_t end = interpose_monotonic_ns() + interpose_ns_of(time);
    const int error = sleep_until(end);
    if (error != 0 && left != nullptr) {
        *left = interpose_timespec_of(std::max<int64_t>(end - interpose_monotonic_ns(), 0));
    }
    return error;
}

int sleep_to(clockid_t clock, const timespec& time) {
    if (!is_valid(time)) {
        return EINVAL;
    }
    const int64_t now = is_utc(clock) ? interpose_utc_ns() : interpose_monotonic_ns();
    return sleep_until(interpose_monotonic_ns() + interpose_ns_of(time) - now);
}

int as_call(int error) {
    if (error != 0) {
        errno = error;
    }
    return error == 0 ? 0 : -1;
}

} // namespace

// Weak: a test program's own definition wins.
extern "C" {

[[gnu::weak]] int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (!interpose_clock_is_own() || (!is_utc(clock) && !is_monotonic(clock))) {
        return real<"clock_gettime", int(clockid_t, timespec*)>()(clock, now);
    }
    *now = interpose_timespec_of(is_utc(clock) ? interpose_utc_ns() : interpose_monotonic_ns());
    return 0;
}

[[gnu::weak]] time_t time(time_t* out) noexcept {
    if (!interpose_clock_is_own()) {
        return real<"time", time_t(time_t*)>()(out);
    }
    const time_t now = interpose_utc_ns() / kNsPerSecond;
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

[[gnu::weak]] int gettimeofday(timeval* now, void* zone) noexcept {
    const int result = real<"gettimeofday", int(timeval*, void*)>()(now, zone);
    if (result == 0 && interpose_clock_is_own()) {
        const int64_t utc = interpose_utc_ns();
        *now = {utc / kNsPerSecond, utc % kNsPerSecond / kNsPerUs};
    }
    return result;
}

[[gnu::weak]] int timespec_get(timespec* now, int base) noexcept {
    if (base != TIME_UTC || !interpose_clock_is_own()) {
        return real<"timespec_get", int(timespec*, int)>()(now, base);
    }
    *now = interpose_timespec_of(interpose_utc_ns());
    return base;
}

[[gnu::weak]] int nanosleep(const timespec* time, timespec* left) {
    if (!interpose_clock_is_own()) {
        return real<"nanosleep", int(const timespec*, timespec*)>()(time, left);
    }
    return as_call(sleep_for(*time, left));
}

[[gnu::weak]] int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    if (!interpose_clock_is_own() || (!is_utc(clock) && !is_monotonic(clock))) {
        using Sleep = int(clockid_t, int, const timespec*, timespec*);
        return real<"clock_nanosleep", Sleep>()(clock, flags, time, left);
    }
    return (flags & TIMER_ABSTIME) != 0 ? sleep_to(clock, *time) : sleep_for(*time, left);
}

[[gnu::weak]] int usleep(useconds_t us) {
    if (!interpose_clock_is_own()) {
        return real<"usleep", int(useconds_t)>()(us);
    }
    return as_call(sleep_for(interpose_timespec_of(int64_t{us} * kNsPerUs), nullptr));
}

[[gnu::weak]] unsigned sleep(unsigned seconds) {
    if (!interpose_clock_is_own()) {
        return real<"sleep", unsigned(unsigned)>()(seconds);
    }
    timespec left = {};
    sleep_for({seconds, 0}, &left);
    return static_cast<unsigned>(left.tv_sec + (left.tv_nsec >= kNsPerSecond / 2 ? 1 : 0));
}

} // extern "C"
