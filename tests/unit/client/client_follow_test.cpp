// How long a silence is waited for, on a clock of its own: no machine's load has a say.
#include "client/exchange.h"

#include <cmath>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

using Seconds = std::vector<double>;
using Counts = std::vector<int>;

constexpr int64_t kSecondNs = 1'000'000'000;

struct FakeDaemon {
    int64_t now_ns = 0;        // 0: the host's clock
    bool answers = false;      // each retake gets one datagram
    int datagrams = 0;         // that wait
    int64_t stream_end_ns = 0; // until then one comes each half second
} fake;

struct LongTime {
    long seconds;
    long ns;
};

int64_t ns_of(Clock::time_point time) {
    return std::chrono::nanoseconds(time.time_since_epoch()).count();
}

} // namespace

// Also that of the library behind std::chrono, which has times of the size of a long.
extern "C" int library_clock_gettime(clockid_t clock, LongTime* now) noexcept __asm__("clock_gettime");
extern "C" int library_clock_gettime(clockid_t clock, LongTime* now) noexcept {
    if (fake.now_ns == 0) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    }
    *now = {static_cast<long>(fake.now_ns / kSecondNs), static_cast<long>(fake.now_ns % kSecondNs)};
    return 0;
}

Clock::time_point deadline_in(double seconds) {
    return Clock::now() + std::chrono::nanoseconds(std::llround(seconds * kSecondNs));
}

Connection::~Connection() = default;

bool connection_send(Connection& /*connection*/, tavor_request_type /*type*/, const std::string& /*text*/,
                     Clock::time_point /*deadline*/) {
    return true;
}

Retaken connection_retake(Connection& /*connection*/, Clock::time_point /*deadline*/) {
    fake.datagrams += fake.answers ? 1 : 0;
    return Retaken::kSameDaemon;
}

Received connection_receive(Connection& /*connection*/, tavor_response& response,
                            Clock::time_point deadline) {
    if (fake.now_ns < fake.stream_end_ns) {
        fake.now_ns += kSecondNs / 2;
        ++fake.datagrams;
    }
    if (fake.datagrams == 0) {
        fake.now_ns = ns_of(deadline);
        return Received::kTimeout;
    }
    --fake.datagrams;
    response = {.code = TAVOR_CODE_NMEA, .value = 0, .payload = {'$', 'x'}};
    return Received::kResponse;
}

namespace {

struct FollowTest : testing::Test {
    FollowTest() {
        fake = {};
        fake.now_ns = 1000 * kSecondNs;
    }
    ~FollowTest() override {
        fake.now_ns = 0;
    }
    // Follows, with a limit of one second, until this many silences were reported.
    void follow(size_t wanted) {
        const Clock::time_point end = deadline_in(100'000);
        const auto note = [&](double length_s, int count, bool /*restarted*/) {
            seconds.push_back(std::round(length_s * 1000) / 1000);
            counts.push_back(count);
            if (seconds.size() == 2) {
                fake.stream_end_ns = fake.now_ns + stream_s * kSecondNs;
            }
            if (seconds.size() == wanted) {
                fake.now_ns = ns_of(end);
            }
        };
        EXPECT_EQ(exchange_follow(connection, {1, end, note}, [](const Record&) { return true; }),
                  Outcome::kTimeout);
    }

    int64_t stream_s = 0; // how long output flows after the second silence
    Connection connection;
    Seconds seconds;
    Counts counts;
};

} // namespace

TEST_F(FollowTest, SilenceThatGoesOnIsGivenTwiceTheTimeUpToAMinute) {
    follow(9);
    EXPECT_EQ(seconds, (Seconds{1, 2, 4, 8, 16, 32, 60, 60, 60}));
    EXPECT_EQ(counts, (Counts{1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(FollowTest, TwoThatFollowGiveEachOtherMoreAndMoreTime) {
    fake.answers = true;
    follow(5);
    EXPECT_EQ(seconds, (Seconds{1, 2, 4, 8, 16}));
    EXPECT_EQ(counts, (Counts{1, 1, 1, 1, 1}));
}

TEST_F(FollowTest, OutputForFourLimitsIsNotEnoughForTheFirstLimit) {
    stream_s = 16;
    follow(3);
    EXPECT_EQ(seconds, (Seconds{1, 2, 4}));
}

TEST_F(FollowTest, OutputForMoreThanFourLimitsBringsTheFirstLimitBack) {
    stream_s = 17;
    follow(3);
    EXPECT_EQ(seconds, (Seconds{1, 2, 1}));
}
