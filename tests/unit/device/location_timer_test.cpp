#include "device/location_timer.h"

#include "interpose/fail.h"
#include "support/capture.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <thread>

extern "C" int __real_timer_create(clockid_t clock, sigevent* event, timer_t* timer);
extern "C" int __real_timer_settime(timer_t timer, int flags, const itimerspec* value, itimerspec* old);
extern "C" int __real_timer_gettime(timer_t timer, itimerspec* value);

namespace {

constexpr std::chrono::seconds kLimit(20);
constexpr int32_t kLongMs = 1000000;

struct Fired {
    std::mutex lock;
    std::condition_variable changed;
    int count;
    void* value;
    std::thread::id thread;
} fired;

struct LastSet {
    int flags;
    itimerspec value;
    bool asked_for_old;
    int calls;
} last_set;

clockid_t created_on;
std::optional<timespec> remaining; // what the system tells instead of its own

void on_fire(sigval value) {
    const std::lock_guard hold(fired.lock);
    ++fired.count;
    fired.value = value.sival_ptr;
    fired.thread = std::this_thread::get_id();
    fired.changed.notify_all();
}

bool wait_for_count(int count) {
    std::unique_lock hold(fired.lock);
    return fired.changed.wait_for(hold, kLimit, [&] { return fired.count >= count; });
}

class LocationTimer : public testing::Test {
protected:
    LocationTimer() : timer(location_timer_create(on_fire)) {
        const std::lock_guard hold(fired.lock);
        fired.count = 0;
        fired.value = this;
        last_set = {};
        remaining.reset();
    }
    ~LocationTimer() override {
        interpose_fail_reset();
        location_timer_delete(timer);
    }

    int32_t is_active() {
        int32_t result = 0;
        log = capture_stdout([&] { result = location_timer_is_active(timer); });
        return result;
    }

    timer_t timer;
    std::string log;
};

} // namespace

extern "C" int __wrap_timer_create(clockid_t clock, sigevent* event, timer_t* timer) {
    created_on = clock;
    return __real_timer_create(clock, event, timer);
}

extern "C" int __wrap_timer_gettime(timer_t timer, itimerspec* value) {
    if (remaining) {
        *value = {.it_interval = {}, .it_value = *remaining};
        return 0;
    }
    return __real_timer_gettime(timer, value);
}

extern "C" int __wrap_timer_settime(timer_t timer, int flags, const itimerspec* value, itimerspec* old) {
    last_set = {flags, *value, old != nullptr, last_set.calls + 1};
    return __real_timer_settime(timer, flags, value, old);
}

TEST_F(LocationTimer, FiresOnceOnAThreadOfItsOwnByTheTimeOfDayAndIsInactiveThen) {
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(created_on, CLOCK_REALTIME);
    ASSERT_EQ(location_timer_start(timer, 5), 0);
    ASSERT_TRUE(wait_for_count(1));
    EXPECT_EQ(is_active(), -1);
    EXPECT_EQ(log, "[LOCSERV] INF: [timer]interval:0,0 value:0,0\n");
    const std::lock_guard hold(fired.lock);
    EXPECT_EQ(fired.value, nullptr);
    EXPECT_NE(fired.thread, std::this_thread::get_id());
}

TEST_F(LocationTimer, IsActiveWhileArmedAndLogsTheRemainingTime) {
    EXPECT_EQ(is_active(), -1);
    EXPECT_EQ(log, "[LOCSERV] INF: [timer]interval:0,0 value:0,0\n");
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    EXPECT_EQ(is_active(), 0);
    long seconds = 0;
    long nanoseconds = 0;
    ASSERT_EQ(
        sscanf(log.c_str(), "[LOCSERV] INF: [timer]interval:0,0 value:%ld,%ld\n", &seconds, &nanoseconds), 2);
    EXPECT_LE(seconds, 1000);
    EXPECT_GT(seconds, 900);
    for (const auto& [left, shown] : {std::pair(timespec{1, 0}, "1,0"), {timespec{0, 1}, "0,1"}}) {
        remaining = left;
        EXPECT_EQ(is_active(), 0);
        EXPECT_EQ(log, std::string("[LOCSERV] INF: [timer]interval:0,0 value:") + shown + "\n");
    }
}

TEST_F(LocationTimer, SetSplitsMillisecondsForOneShotFromNow) {
    ASSERT_EQ(location_timer_set(timer, 1500), 0);
    EXPECT_EQ(last_set.flags, 0);
    EXPECT_EQ(last_set.value.it_value.tv_sec, 1);
    EXPECT_EQ(last_set.value.it_value.tv_nsec, 500000000);
    EXPECT_EQ(last_set.value.it_interval.tv_sec, 0);
    EXPECT_EQ(last_set.value.it_interval.tv_nsec, 0);
    EXPECT_FALSE(last_set.asked_for_old);
    ASSERT_EQ(location_timer_start(timer, 2147483647), 0);
    EXPECT_EQ(last_set.value.it_value.tv_sec, 2147483);
    EXPECT_EQ(last_set.value.it_value.tv_nsec, 647000000);
}

TEST_F(LocationTimer, NegativeTimeIsRefusedAndLeavesTheTimerAsItIs) {
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    EXPECT_EQ(location_timer_start(timer, -1500), -1);
    EXPECT_EQ(last_set.value.it_value.tv_sec, -1);
    EXPECT_EQ(last_set.value.it_value.tv_nsec, -500000000);
    EXPECT_EQ(is_active(), 0);
}

TEST_F(LocationTimer, StopAndAStartWithZeroDisarm) {
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    EXPECT_EQ(location_timer_stop(timer), 0);
    EXPECT_EQ(is_active(), -1);
    EXPECT_EQ(location_timer_stop(timer), 0);
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    EXPECT_EQ(location_timer_start(timer, 0), 0);
    EXPECT_EQ(is_active(), -1);
}

TEST_F(LocationTimer, StartOfAnArmedOrFiredTimerArmsItAnew) {
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    ASSERT_EQ(location_timer_start(timer, 5), 0);
    EXPECT_TRUE(wait_for_count(1));
    ASSERT_EQ(location_timer_start(timer, 1), 0);
    EXPECT_TRUE(wait_for_count(2));
}

TEST_F(LocationTimer, FailedCreateGivesNull) {
    interpose_fail("timer_create", 1, EAGAIN);
    EXPECT_EQ(location_timer_create(on_fire), nullptr);
}

TEST_F(LocationTimer, NullIsLoggedAndReachesNoTimerOfTheProcess) {
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    EXPECT_EQ(capture_stdout([] { EXPECT_EQ(location_timer_is_active(nullptr), -1); }),
              "[LOCSERV] INF: [timer] location_timer_is_active, timer is invalid\n");
    EXPECT_EQ(location_timer_stop(nullptr), -1);
    EXPECT_EQ(location_timer_start(nullptr, 5), -1);
    EXPECT_EQ(location_timer_delete(nullptr), -1);
    EXPECT_EQ(last_set.calls, 1);
    EXPECT_EQ(is_active(), 0);
    EXPECT_EQ(fired.count, 0);
}

TEST_F(LocationTimer, DeletedTimerIsInactiveWithoutALine) {
    ASSERT_EQ(location_timer_start(timer, kLongMs), 0);
    ASSERT_EQ(location_timer_delete(timer), 0);
    // The handle's memory is gone with the timer: a handle that the kernel never gave out takes its place.
    timer = reinterpret_cast<timer_t>(uintptr_t{0x7FFFFFF});
    EXPECT_EQ(is_active(), -1);
    EXPECT_EQ(log, "");
    EXPECT_EQ(location_timer_set(timer, 5), -1);
}
