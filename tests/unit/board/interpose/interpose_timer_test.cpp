// Timers that the interposer makes.
#include "interpose/clock.h"
#include "interpose/fail.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>

namespace {

constexpr int64_t kHour = 3600 * kNsPerSecond;
constexpr itimerspec kInAnHour = {{0, 0}, {3600, 0}};
constexpr itimerspec kAtOnce = {{0, 0}, {0, 1}};
constexpr itimerspec kDisarmed = {};

struct Fired {
    std::mutex lock;
    std::condition_variable changed;
    int count;
    int value;
    std::thread::id thread;
    bool blocks;
} fired;

void on_fire(sigval value) {
    std::unique_lock hold(fired.lock);
    ++fired.count;
    fired.value = value.sival_int;
    fired.thread = std::this_thread::get_id();
    fired.changed.notify_all();
    fired.changed.wait(hold, [] { return !fired.blocks; });
}

// Without a limit: it would be one of the clock that is played with here.
bool wait_for_count(int count) {
    std::unique_lock hold(fired.lock);
    fired.changed.wait(hold, [&] { return fired.count >= count; });
    return fired.count == count;
}

int count_now() {
    const std::lock_guard hold(fired.lock);
    return fired.count;
}

void set_blocks(bool blocks) {
    const std::lock_guard hold(fired.lock);
    fired.blocks = blocks;
    fired.changed.notify_all();
}

struct InterposeTimer : testing::Test {
    InterposeTimer() {
        interpose_make_timers(true);
        set_blocks(false);
        const std::lock_guard hold(fired.lock);
        fired.count = 0;
        timer = make(7);
    }
    ~InterposeTimer() override {
        interpose_fail_reset();
        timer_delete(timer);
        interpose_use_clock(nullptr);
        interpose_make_timers(false);
    }

    static timer_t make(int value, clockid_t clock = CLOCK_REALTIME) {
        sigevent event = {};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_notify_function = on_fire;
        event.sigev_value.sival_int = value;
        timer_t made = nullptr;
        EXPECT_EQ(timer_create(clock, &event, &made), 0);
        return made;
    }
    int64_t left() const {
        itimerspec spec = {};
        EXPECT_EQ(timer_gettime(timer, &spec), 0);
        return interpose_ns_of(spec.it_value);
    }
    int set(const itimerspec& spec, int flags = 0) const {
        return timer_settime(timer, flags, &spec, nullptr);
    }
    // A clock that the timers' thread may look at for ever: it outlives the test.
    static BoardClock& own_clock() {
        static BoardClock clock;
        board_clock_set_speed(clock, interpose_host_time, 1);
        interpose_use_clock(&clock);
        return clock;
    }

    timer_t timer = nullptr;
};

TEST_F(InterposeTimer, FiresOnceOnAThreadOfItsOwnWithItsValue) {
    EXPECT_EQ(left(), 0) << "disarmed at first";
    ASSERT_EQ(set(kAtOnce), 0);
    ASSERT_TRUE(wait_for_count(1));
    EXPECT_EQ(left(), 0);
    const std::lock_guard hold(fired.lock);
    EXPECT_EQ(fired.value, 7);
    EXPECT_NE(fired.thread, std::this_thread::get_id());
}

TEST_F(InterposeTimer, EachExpiryHasAThreadOfItsOwn) {
    set_blocks(true);
    ASSERT_EQ(set(kAtOnce), 0);
    ASSERT_TRUE(wait_for_count(1));
    ASSERT_EQ(set(kAtOnce), 0) << "the first still runs";
    EXPECT_TRUE(wait_for_count(2));
    set_blocks(false);
}

TEST_F(InterposeTimer, MayBeDeletedWhileItsCallbackRuns) {
    set_blocks(true);
    ASSERT_EQ(set(kAtOnce), 0);
    ASSERT_TRUE(wait_for_count(1));
    EXPECT_EQ(timer_delete(timer), 0);
    set_blocks(false);
    timer = make(8);
    ASSERT_EQ(set(kAtOnce), 0);
    ASSERT_TRUE(wait_for_count(2));
}

TEST_F(InterposeTimer, AnAdvanceOfTheClockLetsItFire) {
    BoardClock& clock = own_clock();
    ASSERT_EQ(set(kInAnHour), 0);
    board_clock_advance(clock, interpose_host_time, kHour / 2);
    EXPECT_LE(left(), kHour / 2);
    EXPECT_EQ(count_now(), 0);
    board_clock_advance(clock, interpose_host_time, kHour / 2);
    EXPECT_TRUE(wait_for_count(1));
}

TEST_F(InterposeTimer, AnAbsoluteTimeIsOfItsOwnClock) {
    BoardClock& clock = own_clock();
    timespec now = {};
    for (const clockid_t id : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
        timer_delete(timer);
        timer = make(1, id);
        ASSERT_EQ(clock_gettime(id, &now), 0);
        const int before = count_now();
        ASSERT_EQ(set({{0, 0}, {now.tv_sec + 3600, now.tv_nsec}}, TIMER_ABSTIME), 0);
        EXPECT_LE(left(), kHour);
        EXPECT_GT(left(), kHour / 2);
        board_clock_advance(clock, interpose_host_time, kHour);
        EXPECT_TRUE(wait_for_count(before + 1));
    }
}

TEST_F(InterposeTimer, AnIntervalFiresAgain) {
    ASSERT_EQ(set({{0, 1000000}, {0, 1}}), 0);
    wait_for_count(3);
    itimerspec old = {};
    ASSERT_EQ(timer_settime(timer, 0, &kDisarmed, &old), 0);
    EXPECT_EQ(old.it_interval.tv_nsec, 1000000);
    EXPECT_GT(interpose_ns_of(old.it_value), 0);
    ASSERT_EQ(timer_gettime(timer, &old), 0);
    EXPECT_EQ(old.it_interval.tv_nsec, 0);
}

TEST_F(InterposeTimer, DisarmedItDoesNotFire) {
    BoardClock& clock = own_clock();
    ASSERT_EQ(set(kInAnHour), 0);
    itimerspec old = {};
    ASSERT_EQ(timer_settime(timer, 0, &kDisarmed, &old), 0);
    EXPECT_GT(interpose_ns_of(old.it_value), kHour / 2) << "the time it had before";
    EXPECT_LE(interpose_ns_of(old.it_value), kHour);
    EXPECT_EQ(left(), 0);
    const timer_t other = make(2);
    ASSERT_EQ(timer_settime(other, 0, &kInAnHour, nullptr), 0);
    board_clock_advance(clock, interpose_host_time, 2 * kHour);
    ASSERT_TRUE(wait_for_count(1));
    EXPECT_EQ(timer_delete(other), 0);
    EXPECT_EQ(count_now(), 1);
    const std::lock_guard hold(fired.lock);
    EXPECT_EQ(fired.value, 2) << "the other, which was due at the same time";
}

TEST_F(InterposeTimer, WrongTimesAreRefusedAndChangeNothing) {
    ASSERT_EQ(set(kInAnHour), 0);
    const itimerspec wrong[] = {
        {{0, 0}, {-1, 0}}, {{0, 0}, {0, -1}}, {{0, 0}, {1, kNsPerSecond}},
        {{-1, 0}, {1, 0}}, {{0, -1}, {1, 0}}, {{0, kNsPerSecond}, {1, 0}},
    };
    for (const itimerspec& spec : wrong) {
        EXPECT_EQ(set(spec), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_GT(left(), 0);
}

TEST_F(InterposeTimer, TheLongestTimeIsTaken) {
    ASSERT_EQ(set({{0, 0}, {INT64_MAX, kNsPerSecond - 1}}), 0);
    EXPECT_GT(left(), 100 * 365 * 24 * kHour / 10);
    EXPECT_EQ(count_now(), 0);
}

TEST_F(InterposeTimer, ADeletedHandleIsUnknownAndNeverGivenAgain) {
    const timer_t other = make(1);
    ASSERT_EQ(timer_delete(other), 0);
    itimerspec spec = {};
    for (const int result : {timer_settime(other, 0, &kInAnHour, nullptr), timer_gettime(other, &spec),
                             timer_getoverrun(other), timer_delete(other)}) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, EINVAL);
    }
    const timer_t second = make(1);
    EXPECT_NE(other, second);
    timer_delete(second);
}

TEST_F(InterposeTimer, AnUnknownClockIsRefused) {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    timer_t made = nullptr;
    EXPECT_EQ(timer_create(1000, &event, &made), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(InterposeTimer, ItsThreadsAreNoCallsOfTheProgram) {
    interpose_fail("pthread_create", 1, EAGAIN);
    ASSERT_EQ(set(kAtOnce), 0);
    EXPECT_TRUE(wait_for_count(1));
    pthread_t thread = {};
    EXPECT_EQ(pthread_create(
                  &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr),
              EAGAIN);
}

TEST(InterposeTimerChoice, ATimerThatSignalsIsTheKernels) {
    interpose_make_timers(true);
    sigevent event = {};
    event.sigev_notify = SIGEV_NONE;
    timer_t made = nullptr;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &made), 0);
    ASSERT_EQ(timer_settime(made, 0, &kInAnHour, nullptr), 0);
    itimerspec spec = {};
    ASSERT_EQ(timer_gettime(made, &spec), 0);
    EXPECT_GT(spec.it_value.tv_sec, 1000);
    EXPECT_EQ(timer_getoverrun(made), 0);
    EXPECT_EQ(timer_delete(made), 0);
    interpose_make_timers(false);
}

} // namespace
