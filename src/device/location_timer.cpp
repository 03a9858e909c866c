#include "device/location_timer.h"

#include <cerrno>
#include <cstdio>

namespace {

constexpr int32_t kMsPerSecond = 1000;
constexpr long kNsPerMs = 1000000;

// The system may number its first timer 0, which looks like null: a null handle must never reach it.
int no_timer() {
    errno = EINVAL;
    return -1;
}

} // namespace

timer_t location_timer_create(location_timer_callback callback) {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = callback;
    timer_t timer = nullptr;
    if (timer_create(CLOCK_REALTIME, &event, &timer) != 0) {
        return nullptr;
    }
    return timer;
}

int32_t location_timer_set(timer_t timer, int32_t ms) {
    if (timer == nullptr) {
        return no_timer();
    }
    itimerspec spec = {};
    spec.it_value.tv_sec = ms / kMsPerSecond;
    spec.it_value.tv_nsec = ms % kMsPerSecond * kNsPerMs;
    return timer_settime(timer, 0, &spec, nullptr);
}

int32_t location_timer_start(timer_t timer, int32_t ms) {
    return location_timer_set(timer, ms);
}

int32_t location_timer_stop(timer_t timer) {
    return location_timer_set(timer, 0);
}

int32_t location_timer_is_active(timer_t timer) {
    if (timer == nullptr) {
        puts("[LOCSERV] INF: [timer] location_timer_is_active, timer is invalid");
        return -1;
    }
    itimerspec spec = {};
    if (timer_gettime(timer, &spec) != 0) {
        return -1;
    }
    printf("[LOCSERV] INF: [timer]interval:%lld,%ld value:%lld,%ld\n",
           static_cast<long long>(spec.it_interval.tv_sec), spec.it_interval.tv_nsec,
           static_cast<long long>(spec.it_value.tv_sec), spec.it_value.tv_nsec);
    return spec.it_value.tv_nsec != 0 || spec.it_value.tv_sec != 0 ? 0 : -1;
}

int32_t location_timer_delete(timer_t timer) {
    return timer == nullptr ? no_timer() : timer_delete(timer);
}
