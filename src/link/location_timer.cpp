#include "link/location_timer.h"

#include <cstdio>

namespace {

constexpr int32_t kMsPerSecond = 1000;
constexpr int32_t kNsPerMs = 1000000;

} // namespace

timer_t location_timer_create(location_timer_callback callback) {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = callback;
    event.sigev_value.sival_ptr = nullptr;
    event.sigev_notify_attributes = nullptr;
    timer_t timer = nullptr;
    return timer_create(CLOCK_REALTIME, &event, &timer) == 0 ? timer : nullptr;
}

int32_t location_timer_set(timer_t timer, int32_t ms) {
    itimerspec time = {};
    time.it_value.tv_sec = ms / kMsPerSecond;
    time.it_value.tv_nsec = static_cast<long>(ms % kMsPerSecond) * kNsPerMs;
    return timer_settime(timer, 0, &time, nullptr);
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
    itimerspec time = {};
    if (timer_gettime(timer, &time) != 0) {
        return -1;
    }
    printf("[LOCSERV] INF: [timer]interval:%ld,%ld value:%ld,%ld\n",
           static_cast<long>(time.it_interval.tv_sec), time.it_interval.tv_nsec,
           static_cast<long>(time.it_value.tv_sec), time.it_value.tv_nsec);
    return time.it_value.tv_nsec != 0 || time.it_value.tv_sec != 0 ? 0 : -1;
}

int32_t location_timer_delete(timer_t timer) {
    return timer_delete(timer);
}
