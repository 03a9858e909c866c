// Replaced timer functions. The timers that the interposer makes run on the program's clock: one thread waits
// for the next expiry, and each expiry runs the callback on a fresh thread, as the C library does. All of a
// timer's state is in one table, so that a callback that runs while its timer is deleted finds nothing gone.
#undef _FORTIFY_SOURCE

#include "interpose/clock.h"
#include "interpose/hook.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace {

constexpr uintptr_t kFirstHandle =
    0x40000000; // far above the kernel's numbers, and positive: no handle of the C library
constexpr int64_t kNever = -1;

struct Timer {
    clockid_t clock;
    void (*callback)(sigval);
    sigval value;
    int64_t due_ns;      // of the program's monotonic clock
    int64_t interval_ns; // 0: one shot
    bool armed;
};

struct TimerTable {
    std::map<uintptr_t, Timer> timers;
    uintptr_t next_handle = kFirstHandle;
    bool thread_runs = false;
};

// Usable before any constructor has run and after every destructor: the thread runs until the process ends.
struct TimerState {
    std::mutex lock; // guards the table
    TimerTable* table;
} state;

struct Expiry {
    void (*callback)(sigval);
    sigval value;
};

TimerTable& table() {
    if (state.table == nullptr) {
        state.table = new TimerTable;
    }
    return *state.table;
}

void set_all_signals(int how) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(how, &all, nullptr);
}

void* run_callback(void* argument) {
    const std::unique_ptr<Expiry> expiry(static_cast<Expiry*>(argument));
    pthread_detach(pthread_self());
    set_all_signals(SIG_UNBLOCK);
    expiry->callback(expiry->value);
    return nullptr;
}

// An expiry for which there is no thread is lost, as with the C library.
void start_callback(const Timer& timer) {
    auto expiry = std::make_unique<Expiry>(Expiry{timer.callback, timer.value});
    pthread_t thread = {};
    if (pthread_create(&thread, nullptr, run_callback, expiry.get()) == 0) {
        (void)expiry.release(); // the thread's
    }
}

// Starts what is due. Returns when the next expiry is, kNever without one. The lock must be held.
int64_t expire(int64_t now_ns) {
    int64_t next = kNever;
    for (auto& [handle, timer] : table().timers) {
        if (timer.armed && timer.due_ns <= now_ns) {
            timer.armed = timer.interval_ns != 0;
            timer.due_ns = now_ns + timer.interval_ns;
            start_callback(timer);
        }
        if (timer.armed && (next == kNever || timer.due_ns < next)) {
            next = timer.due_ns;
        }
    }
    return next;
}

int64_t expire_now() {
    const std::lock_guard hold(state.lock);
    return expire(interpose_monotonic_ns());
}

[[noreturn]] void* run_timers(void*) {
    pthread_detach(pthread_self());
    const InterposeUncounted uncounted;
    for (;;) {
        const BoardClock& clock = interpose_clock();
        const uint32_t seen = clock.wakes;
        if (&clock != &interpose_clock()) {
            continue; // chosen meanwhile: who chose it has woken the clock before, which is waited on no more
        }
        const int64_t next = expire_now();
        const int64_t left = next - interpose_monotonic_ns();
        board_clock_wait(clock, seen,
                         next == kNever ? kNever : interpose_host_wait(std::max<int64_t>(left, 0)));
    }
}

// The lock must be held. Returns whether the thread runs.
bool start_thread() {
    if (!table().thread_runs) {
        const InterposeUncounted uncounted;
        sigset_t before;
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before); // signals are for the program's own threads
        pthread_t thread = {};
        table().thread_runs = pthread_create(&thread, nullptr, run_timers, nullptr) == 0;
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    return table().thread_runs;
}

int fail_with(int error) {
    errno = error;
    return -1;
}

bool is_known(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME;
}

int create(clockid_t clock, const sigevent& event, timer_t* handle) {
    if (!is_known(clock)) {
        return fail_with(EINVAL);
    }
    const std::lock_guard hold(state.lock);
    if (!start_thread()) {
        return fail_with(EAGAIN);
    }
    const uintptr_t number = table().next_handle++;
    table().timers[number] = {clock, event.sigev_notify_function, event.sigev_value, 0, 0, false};
    *handle = reinterpret_cast<timer_t>(number); // NOLINT(performance-no-int-to-ptr)
    return 0;
}

// The timer of a handle, null when the interposer has not made it. The lock must be held.
Timer* find(timer_t handle) {
    const auto found = table().timers.find(reinterpret_cast<uintptr_t>(handle));
    return found == table().timers.end() ? nullptr : &found->second;
}

// A timer that is due and has not been started yet is armed still: the kernel shows the shortest time then.
itimerspec remaining(const Timer& timer) {
    itimerspec spec = {};
    if (timer.armed) {
        spec.it_interval = interpose_timespec_of(timer.interval_ns);
        spec.it_value = interpose_timespec_of(std::max<int64_t>(timer.due_ns - interpose_monotonic_ns(), 1));
    }
    return spec;
}

bool is_valid(const timespec& time) {
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kNsPerSecond;
}

// The kernel's clocks end where 64 bits of nanoseconds end; later is then.
int64_t bounded_ns(const timespec& time) {
    constexpr int64_t kMostSeconds = INT64_MAX / kNsPerSecond / 4; // leaves room for what is added to it
    return interpose_ns_of({std::min<time_t>(time.tv_sec, kMostSeconds), time.tv_nsec});
}

void arm(Timer& timer, int flags, const itimerspec& spec) {
    const int64_t value = bounded_ns(spec.it_value);
    const int64_t now = interpose_monotonic_ns();
    const int64_t clock_now = timer.clock == CLOCK_REALTIME ? interpose_utc_ns() : now;
    timer.armed = value != 0;
    timer.interval_ns = timer.armed ? bounded_ns(spec.it_interval) : 0;
    timer.due_ns = (flags & TIMER_ABSTIME) != 0 ? now + (value - clock_now) : now + value;
}

// Looks a timer up and lets use have it, under the lock. Returns nothing when the interposer has not made it.
template <typename Use> std::optional<int> with_timer(timer_t handle, const Use& use) {
    const std::lock_guard hold(state.lock);
    Timer* timer = find(handle);
    return timer == nullptr ? std::nullopt : std::optional<int>(use(*timer));
}

int set(Timer& timer, int flags, const itimerspec* value, itimerspec* old) {
    if (value == nullptr || !is_valid(value->it_value) || !is_valid(value->it_interval)) {
        return fail_with(EINVAL);
    }
    if (old != nullptr) {
        *old = remaining(timer);
    }
    arm(timer, flags, *value);
    board_clock_wake(interpose_clock());
    return 0;
}

} // namespace

// Weak: a test program's own definition wins.
extern "C" {

[[gnu::weak]] int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
    if (hook_fails("timer_create")) {
        return -1;
    }
    if (event != nullptr && event->sigev_notify == SIGEV_THREAD && interpose_makes_timers()) {
        return create(clock, *event, timer);
    }
    return real<"timer_create", int(clockid_t, sigevent*, timer_t*)>()(clock, event, timer);
}

[[gnu::weak]] int timer_settime(timer_t timer, int flags, const itimerspec* value, itimerspec* old) noexcept {
    using SetTime = int(timer_t, int, const itimerspec*, itimerspec*);
    const auto result = with_timer(timer, [&](Timer& found) { return set(found, flags, value, old); });
    return result ? *result : real<"timer_settime", SetTime>()(timer, flags, value, old);
}

[[gnu::weak]] int timer_gettime(timer_t timer, itimerspec* value) noexcept {
    const auto result = with_timer(timer, [&](const Timer& found) {
        *value = remaining(found);
        return 0;
    });
    return result ? *result : real<"timer_gettime", int(timer_t, itimerspec*)>()(timer, value);
}

[[gnu::weak]] int timer_getoverrun(timer_t timer) noexcept {
    const auto result = with_timer(timer, [](const Timer&) { return 0; });
    return result ? *result : real<"timer_getoverrun", int(timer_t)>()(timer);
}

[[gnu::weak]] int timer_delete(timer_t timer) noexcept {
    const std::unique_lock hold(state.lock);
    if (table().timers.erase(reinterpret_cast<uintptr_t>(timer)) != 0) {
        return 0;
    }
    return real<"timer_delete", int(timer_t)>()(timer);
}

} // extern "C"
