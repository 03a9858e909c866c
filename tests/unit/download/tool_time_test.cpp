#include "download/tool_sleep.h"
#include "download/tool_time.h"

#include "download/tool_log.h"
#include "support/capture.h"
#include "support/fake_clock.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

namespace {

using std::string;

bool calendar_fails = false;

struct ToolTime : testing::Test {
    ToolTime() {
        calendar_fails = false;
        fake_clock_start();
    }
    ~ToolTime() override {
        fake_clock_stop();
    }
};

// What follows the elapsed text's place in a line that is logged now.
string logged() {
    return capture_stdout([] { tool_log_info("Download time: %d ms\n", 5678); });
}

} // namespace

extern "C" {

tm* __real_localtime_r(const time_t* seconds, tm* local);

tm* __wrap_localtime_r(const time_t* seconds, tm* local) {
    return calendar_fails ? nullptr : __real_localtime_r(seconds, local);
}
}

TEST_F(ToolTime, TimestampIsTheLocalTimeWithMilliseconds) {
    EXPECT_STREQ(tool_log_timestamp(), "2024-05-01 12:00:00.123");
    setenv("TZ", "EST5", 1);
    EXPECT_STREQ(tool_log_timestamp(), "2024-05-01 07:00:00.123");
    setenv("TZ", "UTC", 1);
    fake_clock.now_ms = 1001;
    EXPECT_STREQ(tool_log_timestamp(), "1970-01-01 00:00:01.001") << "fields are filled with zeros";
    fake_clock.now_ms = 253402300800000;
    EXPECT_STREQ(tool_log_timestamp(), "0000-01-01 00:00:00.000") << "four digits of the year 10000";
}

TEST_F(ToolTime, TimestampIsOneReadingOfTheClock) {
    fake_clock.now_ms += 876; // 12:00:00.999
    fake_clock.between_readings_ms = 2;
    EXPECT_STREQ(tool_log_timestamp(), "2024-05-01 12:00:00.999");
    EXPECT_STREQ(tool_log_timestamp(), "2024-05-01 12:00:01.001");
}

TEST_F(ToolTime, ThereIsNoTimestampWithoutClockOrCalendar) {
    fake_clock.timespec_fails = fake_clock.time_fails = true;
    capture_stdout([] { EXPECT_EQ(tool_log_timestamp(), nullptr); });
    fake_clock.timespec_fails = fake_clock.time_fails = false;
    fake_clock.now_ms = 999; // second 0
    EXPECT_EQ(tool_log_timestamp(), nullptr);
    fake_clock.now_ms = kFakeNoonMs;
    calendar_fails = true;
    EXPECT_EQ(tool_log_timestamp(), nullptr);
}

TEST_F(ToolTime, MissingTimestampIsAnEmptyText) {
    fake_clock.now_ms = 999;
    const string log = capture_stdout([] { tool_log_error("open file Failed:%s\n", "x%sy"); });
    EXPECT_EQ(log.substr(0, 5), " [E][");
    EXPECT_EQ(log.substr(log.find("] ")), "] open file Failed:x%sy\n");
}

TEST_F(ToolTime, FailingSubsecondClockIsReportedOnceAndCountsAsZero) {
    fake_clock.timespec_fails = true;
    const string log = capture_stdout([] { EXPECT_STREQ(tool_log_timestamp(), "2024-05-01 12:00:00.000"); });
    ASSERT_EQ(lines_of(log).size(), 1U);
    EXPECT_EQ(log.substr(0, 28), "2024-05-01 12:00:00.000 [E][");
    EXPECT_EQ(without_stamps(log)[0], "[E] timespec_get ERROR!");
}

TEST_F(ToolTime, ElapsedCountsFromTheFirstStart) {
    const string before = logged();
    EXPECT_EQ(before, "2024-05-01 12:00:00.123 [I][1714564800.124] Download time: 5678 ms\n");

    tool_time_start();
    EXPECT_STREQ(tool_log_elapsed(), "[   0.000]");
    fake_clock.now_ms += 1500;
    EXPECT_STREQ(tool_log_elapsed(), "[   1.500]");
    EXPECT_EQ(logged(), "2024-05-01 12:00:01.623 [I][   1.500] Download time: 5678 ms\n");

    tool_time_start();
    EXPECT_STREQ(tool_log_elapsed(), "[   1.500]");
    fake_clock.now_ms += 123456789;
    EXPECT_STREQ(tool_log_elapsed(), "[123458.289]");
    fake_clock.now_ms = kFakeNoonMs - 250; // the clock was set back
    EXPECT_STREQ(tool_log_elapsed(), "[  -0.250]");
}

TEST(ToolLog, LineThatIsNotEndedShowsInTheTests) {
    const string log = capture_stdout([] { tool_log_info("one\n%s", "two"); });
    EXPECT_EQ(without_stamps(log), (std::vector<string>{"[I] one", "two<no line end>"}));
}

TEST_F(ToolTime, TimeThatPassesIsNoMatterOfTheTimeOfDay) {
    EXPECT_EQ(tool_time_now_ms(), kFakeNoonMs);
    const int64_t start = tool_time_passed_ms();
    fake_clock.set_ms = 3'600'000;
    EXPECT_EQ(tool_time_passed_ms(), start);
    fake_clock.now_ms += 1501;
    EXPECT_EQ(tool_time_passed_ms(), start + 1501);
    EXPECT_EQ(tool_time_now_ms(), kFakeNoonMs + 3'600'000 + 1501);
}

TEST_F(ToolTime, SleepsSecondsAndMilliseconds) {
    EXPECT_EQ(capture_stdout([] {
                  tool_sleep_ms(0);
                  tool_sleep_ms(20);
                  tool_sleep_ms(2500);
              }),
              "");
    EXPECT_EQ(fake_clock.slept, (std::vector<int64_t>{0, 20, 2500}));
}

TEST_F(ToolTime, FailedSleepIsLoggedWithAnEmptyLineAndNotResumed) {
    fake_clock.sleep_fails = true;
    const string log = capture_stdout([] { tool_sleep_ms(2500); });
    EXPECT_EQ(without_stamps(log), (std::vector<string>{"[E] \t nanousleep 2500 not support", ""}));
    EXPECT_TRUE(fake_clock.slept.empty());
}

TEST(ToolSleep, ImpossibleTimeFailsAtOnce) {
    const string log = capture_stdout([] { tool_sleep_ms(-5); });
    EXPECT_EQ(without_stamps(log), (std::vector<string>{"[E] \t nanousleep 4294967291 not support", ""}));
}
