// The time since the system's start, suspend included. It gives the age of what was heard last: whoever asks
// wants to know how long ago that was. Limits go by the steady clock, which stops during suspend:
// nobody could have answered meanwhile.
#ifndef TAVOR_RELAY_BOOT_CLOCK_H
#define TAVOR_RELAY_BOOT_CLOCK_H

#include <chrono>
#include <ctime>

struct BootClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<BootClock>;
    static constexpr bool is_steady = true;

    static time_point now() {
        timespec time = {};
        clock_gettime(CLOCK_BOOTTIME, &time);
        return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
    }
};

#endif
