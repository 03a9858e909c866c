// Replaced functions that wait for something with a time-out. pthread_cond_timedwait is not replaced: which
// clock its deadline uses cannot be read from the condition variable.
#undef _FORTIFY_SOURCE

#include "interpose/clock.h"
#include "interpose/hook.h"

#include <algorithm>
#include <climits>
#include <poll.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kLongestWaitNs =
    20000000; // of the host, before the clock is looked at anew: it may have been put forward

// Repeats a wait in pieces until it has a result or the program's clock has gone on by timeout_ns. wait takes
// nanoseconds of the host and returns 0 when they passed for nothing.
template <typename Wait> int wait_in_pieces(int64_t timeout_ns, const Wait& wait) {
    const int64_t end = interpose_monotonic_ns() + timeout_ns;
    for (;;) {
        const int64_t left = std::max<int64_t>(end - interpose_monotonic_ns(), 0);
        const int result = wait(std::min(interpose_host_wait(left), kLongestWaitNs));
        if (result != 0 || left == 0) {
            return result;
        }
    }
}

int host_ms(int64_t ns) {
    return static_cast<int>((ns + kNsPerMs - 1) / kNsPerMs);
}

// The moment of the host at which the program's clock reaches the deadline.
timespec host_deadline(clockid_t clock, const timespec& deadline) {
    const bool utc = clock == CLOCK_REALTIME;
    const int64_t left = interpose_ns_of(deadline) - (utc ? interpose_utc_ns() : interpose_monotonic_ns());
    const HostTime host = interpose_host_time();
    return interpose_timespec_of((utc ? host.utc_ns : host.monotonic_ns) +
                                 interpose_host_wait(std::max<int64_t>(left, 0)));
}

// Whether a deadline has to be put into the host's time; a wrong one is for the real function to refuse.
bool converts(const timespec* deadline) {
    return interpose_clock_is_own() && deadline->tv_nsec >= 0 && deadline->tv_nsec < kNsPerSecond;
}

using Poll = int(pollfd*, nfds_t, int);

int poll_in_pieces(pollfd* files, nfds_t count, int64_t timeout_ns) {
    return wait_in_pieces(timeout_ns,
                          [&](int64_t ns) { return real<"poll", Poll>()(files, count, host_ms(ns)); });
}

} // namespace

// Weak: a test program's own definition wins.
extern "C" {

[[gnu::weak]] int poll(pollfd* files, nfds_t count, int timeout_ms) {
    if (timeout_ms <= 0 || !interpose_clock_is_own()) {
        return real<"poll", Poll>()(files, count, timeout_ms);
    }
    return poll_in_pieces(files, count, timeout_ms * kNsPerMs);
}

[[gnu::weak]] int __poll_chk(pollfd* files, nfds_t count, int timeout_ms, size_t room) {
    if (timeout_ms <= 0 || !interpose_clock_is_own() || count > room / sizeof *files) {
        return real<"__poll_chk", int(pollfd*, nfds_t, int, size_t)>()(files, count, timeout_ms, room);
    }
    return poll_in_pieces(files, count, timeout_ms * kNsPerMs);
}

[[gnu::weak]] int ppoll(pollfd* files, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    using Ppoll = int(pollfd*, nfds_t, const timespec*, const sigset_t*);
    if (timeout == nullptr || !converts(timeout) || timeout->tv_sec < 0) {
        return real<"ppoll", Ppoll>()(files, count, timeout, mask);
    }
    return wait_in_pieces(interpose_ns_of(*timeout), [&](int64_t ns) {
        const timespec piece = interpose_timespec_of(ns);
        return real<"ppoll", Ppoll>()(files, count, &piece, mask);
    });
}

[[gnu::weak]] int select(int count, fd_set* reads, fd_set* writes, fd_set* others, timeval* timeout) {
    using Select = int(int, fd_set*, fd_set*, fd_set*, timeval*);
    if (timeout == nullptr || timeout->tv_sec < 0 || timeout->tv_usec < 0 || !interpose_clock_is_own()) {
        return real<"select", Select>()(count, reads, writes, others, timeout);
    }
    fd_set none;
    FD_ZERO(&none);
    const fd_set asked[] = {reads == nullptr ? none : *reads, writes == nullptr ? none : *writes,
                            others == nullptr ? none : *others};
    fd_set* const sets[] = {reads, writes, others};
    const int64_t ns = timeout->tv_sec * kNsPerSecond + timeout->tv_usec * kNsPerUs;
    return wait_in_pieces(ns, [&](int64_t piece_ns) {
        for (size_t i = 0; i < std::size(sets); ++i) { // the piece before has emptied them
            if (sets[i] != nullptr) {
                *sets[i] = asked[i];
            }
        }
        timeval piece = {piece_ns / kNsPerSecond, (piece_ns % kNsPerSecond + kNsPerUs - 1) / kNsPerUs};
        return real<"select", Select>()(count, reads, writes, others, &piece);
    });
}

[[gnu::weak]] int epoll_wait(int fd, epoll_event* events, int room, int timeout_ms) {
    using EpollWait = int(int, epoll_event*, int, int);
    if (timeout_ms <= 0 || !interpose_clock_is_own()) {
        return real<"epoll_wait", EpollWait>()(fd, events, room, timeout_ms);
    }
    return wait_in_pieces(timeout_ms * kNsPerMs, [&](int64_t ns) {
        return real<"epoll_wait", EpollWait>()(fd, events, room, host_ms(ns));
    });
}

[[gnu::weak]] int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    using TimedWait = int(sem_t*, const timespec*);
    if (!converts(deadline)) {
        return real<"sem_timedwait", TimedWait>()(semaphore, deadline);
    }
    const timespec host = host_deadline(CLOCK_REALTIME, *deadline);
    return real<"sem_timedwait", TimedWait>()(semaphore, &host);
}

[[gnu::weak]] int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) noexcept(false) {
    using ClockWait = int(sem_t*, clockid_t, const timespec*);
    if (!converts(deadline)) {
        return real<"sem_clockwait", ClockWait>()(semaphore, clock, deadline);
    }
    const timespec host = host_deadline(clock, *deadline);
    return real<"sem_clockwait", ClockWait>()(semaphore, clock, &host);
}

[[gnu::weak]] int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline) noexcept {
    using TimedLock = int(pthread_mutex_t*, const timespec*);
    if (!converts(deadline)) {
        return real<"pthread_mutex_timedlock", TimedLock>()(mutex, deadline);
    }
    const timespec host = host_deadline(CLOCK_REALTIME, *deadline);
    return real<"pthread_mutex_timedlock", TimedLock>()(mutex, &host);
}

[[gnu::weak]] int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                          const timespec* deadline) noexcept {
    using ClockLock = int(pthread_mutex_t*, clockid_t, const timespec*);
    if (!converts(deadline)) {
        return real<"pthread_mutex_clocklock", ClockLock>()(mutex, clock, deadline);
    }
    const timespec host = host_deadline(clock, *deadline);
    return real<"pthread_mutex_clocklock", ClockLock>()(mutex, clock, &host);
}

[[gnu::weak]] int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                         const timespec* deadline) {
    using ClockWait = int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
    if (!converts(deadline)) {
        return real<"pthread_cond_clockwait", ClockWait>()(condition, mutex, clock, deadline);
    }
    const timespec host = host_deadline(clock, *deadline);
    return real<"pthread_cond_clockwait", ClockWait>()(condition, mutex, clock, &host);
}

} // extern "C"
