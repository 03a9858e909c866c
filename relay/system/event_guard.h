// Events of libevent that end with their owner.
#ifndef TAVOR_RELAY_EVENT_GUARD_H
#define TAVOR_RELAY_EVENT_GUARD_H

#include "system/system_time.h"

#include <chrono>
#include <event2/event.h>
#include <memory>
#include <sys/time.h>
#include <utility>

struct EventFree {
    void operator()(event* one) const {
        event_free(one);
    }
};
using EventPtr = std::unique_ptr<event, EventFree>;

struct EventBaseFree {
    void operator()(event_base* base) const {
        event_base_free(base);
    }
};
using EventBasePtr = std::unique_ptr<event_base, EventBaseFree>;

// Priorities of the loop: what is pending at a lower number comes first. The daemon's socket has the first,
// everything else the last.
inline constexpr int kPriorityUpstream = 0;
inline constexpr int kPriorities = 2;

inline SystemTimeval event_time(std::chrono::milliseconds time) {
    return {static_cast<SystemTimeField>(time.count() / 1000),
            static_cast<SystemTimeField>(time.count() % 1000 * 1000)};
}

// As the library's own build had it.
inline const timeval* event_timeval(const SystemTimeval& time) {
    return reinterpret_cast<const timeval*>(&time);
}

// A loop that serves others for 5 ms at most, but at least one of them, before it turns to the daemon again:
// a millisecond by libevent's clock, which moves with the kernel's ticks. Null on failure.
inline EventBasePtr event_base_open() {
    const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                             event_config_free);
    const SystemTimeval turn = event_time(std::chrono::milliseconds(1));
    if (!config || event_config_set_max_dispatch_interval(config.get(), event_timeval(turn), -1,
                                                          kPriorityUpstream + 1) != 0) {
        return nullptr;
    }
    EventBasePtr base(event_base_new_with_config(config.get()));
    return base && event_base_priority_init(base.get(), kPriorities) == 0 ? std::move(base) : nullptr;
}

// Arms a timer, also one that is armed already. At the end of 0 ms the loop has looked at all descriptors
// once.
inline void event_arm(const EventPtr& timer, std::chrono::milliseconds time) {
    const SystemTimeval wait = event_time(time);
    event_add(timer.get(), event_timeval(wait));
}

#endif
