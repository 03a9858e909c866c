#include "interpose/board_clock.h"

#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int64_t kNsPerSecond = 1000000000;

static_assert(std::atomic<int64_t>::is_always_lock_free, "the clock is shared by processes");
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "the kernel waits on the plain word");

// While one lives, readers wait: the time that a change begins with is the last one of the old clock.
struct Change {
    explicit Change(BoardClock& changed) : clock(changed) {
        ++clock.changes;
    }
    ~Change() {
        ++clock.changes;
        board_clock_wake(clock);
    }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    BoardClock& clock;
};

BoardTime time_of(const BoardClock& clock, const HostTime& host) {
    if (clock.own == 0) {
        return {host.monotonic_ns, host.utc_ns, 1};
    }
    const uint32_t speed = clock.speed;
    const int64_t monotonic = clock.board_ns + (host.monotonic_ns - clock.host_ns) * speed;
    return {monotonic, monotonic + clock.utc_ns, speed};
}

// Lets the clock go on from this time on.
void set(BoardClock& clock, const HostTime& host, const BoardTime& time) {
    clock.host_ns = host.monotonic_ns;
    clock.board_ns = time.monotonic_ns;
    clock.utc_ns = time.utc_ns - time.monotonic_ns;
    clock.speed = time.speed;
    clock.own = 1;
}

long futex(const std::atomic<uint32_t>& word, int operation, uint32_t value, const timespec* limit) {
#ifdef SYS_futex_time64 // where only this call takes times of 64 bits
    constexpr long kCall = SYS_futex_time64;
#else
    constexpr long kCall = SYS_futex;
#endif
    return syscall(kCall, &word, operation, value, limit, nullptr, 0);
}

} // namespace

BoardTime board_clock_now(const BoardClock& clock, HostClock host) {
    for (;;) {
        const uint32_t before = clock.changes;
        const BoardTime time = time_of(clock, host());
        if (before % 2 == 0 && clock.changes == before) {
            return time;
        }
    }
}

int64_t board_clock_host_wait(const BoardClock& clock, int64_t board_ns) {
    const uint32_t speed = clock.own != 0 ? clock.speed.load() : 1;
    return board_ns / speed + (board_ns % speed != 0 ? 1 : 0);
}

void board_clock_set_utc(BoardClock& clock, HostClock host, int64_t utc_ns) {
    const Change change(clock);
    const HostTime now = host();
    const BoardTime time = time_of(clock, now);
    set(clock, now, {time.monotonic_ns, utc_ns, time.speed});
}

void board_clock_set_speed(BoardClock& clock, HostClock host, uint32_t speed) {
    const Change change(clock);
    const HostTime now = host();
    const BoardTime time = time_of(clock, now);
    set(clock, now, {time.monotonic_ns, time.utc_ns, speed});
}

void board_clock_advance(BoardClock& clock, HostClock host, int64_t by_ns) {
    const Change change(clock);
    const HostTime now = host();
    const BoardTime time = time_of(clock, now);
    set(clock, now, {time.monotonic_ns + by_ns, time.utc_ns + by_ns, time.speed});
}

void board_clock_wake(BoardClock& clock) {
    ++clock.wakes;
    futex(clock.wakes, FUTEX_WAKE, INT_MAX, nullptr);
}

void board_clock_wait(const BoardClock& clock, uint32_t seen_wakes, int64_t host_ns) {
    const timespec limit = {host_ns / kNsPerSecond, static_cast<long>(host_ns % kNsPerSecond)};
    futex(clock.wakes, FUTEX_WAIT, seen_wakes, host_ns < 0 ? nullptr : &limit);
}
