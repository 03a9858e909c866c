#include "chrony/chrony.h"

#include "chrony/chrony_sample.h"
#include "support/relay_loop.h"
#include "support/wait.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t kField = TAVOR_SYSTEM_TIME_SIZE;
constexpr HubTime kNoon = std::chrono::sys_days{std::chrono::year{2026} / 11 / 21} + std::chrono::hours(12);

std::string rmc(const std::string& time, const std::string& date = "211126", const std::string& status = "A",
                const std::string& mode = "A") {
    return "$GNRMC," + time + "," + status + ",4807.038,N,01131.000,E,10.0,84.4," + date + ",,," + mode +
           ",V*00\r\n";
}

// As chronyd makes it.
struct ClockSocket {
    explicit ClockSocket(const std::string& path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~ClockSocket() {
        close(fd);
    }
    ClockSocket(const ClockSocket&) = delete;
    ClockSocket& operator=(const ClockSocket&) = delete;

    // The next sample, empty when there is none.
    std::string take() const {
        std::string bytes(256, '\0');
        const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(size < 0 ? 0 : static_cast<size_t>(size));
        return bytes;
    }
    size_t count() const {
        size_t samples = 0;
        while (!take().empty()) {
            ++samples;
        }
        return samples;
    }

    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

template <typename Value> Value at(const std::string& bytes, size_t offset) {
    Value value = {};
    memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

struct RelayChrony : testing::Test {
    RelayChrony() {
        loop.open(false);
        EXPECT_TRUE(chrony_open({.path = path, .second = kShortSecond}));
    }
    ~RelayChrony() override {
        chrony_close();
    }

    static void put(const std::string& sentence, std::optional<HubTime> arrived) {
        hub_put(relay_response(TAVOR_CODE_NMEA, 0, sentence), arrived);
        hub_hand_out();
    }
    std::string log_of(const std::function<void()>& body) const {
        testing::internal::CaptureStdout();
        body();
        return testing::internal::GetCapturedStdout();
    }

    RelayLoop loop;
    std::string path = (loop.directory.path / "chrony.sock").string();
};

TEST_F(RelayChrony, ASampleTellsWhenTheSentenceCameAndHowFarTheClockIsOff) {
    const ClockSocket clock(path);
    put(rmc("120003.50"), kNoon + std::chrono::microseconds(250'007));
    const std::string bytes = clock.take();
    ASSERT_EQ(bytes.size(), 2 * kField + 24);
    EXPECT_EQ(at<SystemTimeField>(bytes, 0), 1795262400); // date -d '2026-11-21 12:00 UTC' +%s
    EXPECT_EQ(at<SystemTimeField>(bytes, kField), 250'007);
    EXPECT_NEAR(at<double>(bytes, 2 * kField), 3.249993, 1e-9);
    EXPECT_EQ(at<int>(bytes, 2 * kField + 8), 0);  // no pulse
    EXPECT_EQ(at<int>(bytes, 2 * kField + 12), 0); // no leap second
    EXPECT_EQ(bytes.substr(2 * kField + 20), "KCOS");
}

TEST_F(RelayChrony, AClockThatIsAheadHasANegativeOffset) {
    const ClockSocket clock(path);
    put(rmc("115959.00"), kNoon + std::chrono::milliseconds(500));
    EXPECT_NEAR(at<double>(clock.take(), 2 * kField), -1.5, 1e-9);
}

TEST_F(RelayChrony, EachSecondIsToldOnce) {
    const ClockSocket clock(path);
    for (const char* time : {"120000.00", "120000.10", "120000.90", "120000.00"}) {
        put(rmc(time), kNoon);
    }
    EXPECT_EQ(clock.count(), 1U);
    put(rmc("120001.00"), kNoon);
    put(rmc("110001.00"), kNoon); // the chip's clock was set back
    EXPECT_EQ(clock.count(), 2U);
}

TEST_F(RelayChrony, NothingIsToldForFiveSecondsAfterASentenceThatMayHaveWaited) {
    const ClockSocket clock(path);
    put(rmc("120000.00"), std::nullopt);
    const auto held = std::chrono::steady_clock::now() + 5 * kShortSecond;
    int second = 0;
    ASSERT_TRUE(wait_until([&] {
        put(rmc(std::to_string(120001 + second)), kNoon);
        second = (second + 1) % 50;
        return clock.count() > 0;
    }));
    EXPECT_GE(std::chrono::steady_clock::now(), held - kShortSecond);
}

TEST_F(RelayChrony, TheSocketIsFoundAndLostAndFoundAgainWithALineEach) {
    EXPECT_EQ(log_of([&] {
                  put(rmc("120000"), kNoon);
                  put(rmc("120001"), kNoon);
              }),
              "tavor-relay: chronyd does not take the time at " + path + ": No such file or directory\n");
    {
        const ClockSocket clock(path);
        EXPECT_EQ(log_of([&] {
                      put(rmc("120002"), kNoon);
                      put(rmc("120003"), kNoon);
                  }),
                  "tavor-relay: chronyd takes the time at " + path + "\n");
        EXPECT_EQ(clock.count(), 2U);
    }
    EXPECT_EQ(log_of([&] { put(rmc("120004"), kNoon); }),
              "tavor-relay: chronyd does not take the time at " + path + ": Connection refused\n");
    const ClockSocket restarted(path);
    put(rmc("120005"), kNoon);
    EXPECT_EQ(restarted.count(), 1U);
}

TEST_F(RelayChrony, ASocketThatNobodyReadsHoldsUpNothing) {
    const ClockSocket clock(path);
    const std::string log = log_of([&] {
        for (int i = 0; i < 1100; ++i) { // more than any queue holds
            put(rmc(std::to_string(120000 + i / 60 * 100 + i % 60)), kNoon);
        }
    });
    EXPECT_NE(log.find("Resource temporarily unavailable\n"), std::string::npos);
    EXPECT_GT(clock.count(), 0U);
}

TEST_F(RelayChrony, ATimeThatCannotBeRightIsNotTold) {
    const ClockSocket clock(path);
    const std::string log = log_of([&] {
        put(rmc("120000", "060180"), kNoon);
        put(rmc("120001", "060180"), kNoon);
    });
    EXPECT_EQ(log, "tavor-relay: the chip's time 2080-01-06T12:00:00.000Z is not told to chronyd\n");
    EXPECT_EQ(clock.count(), 0U);
    put(rmc("120002"), kNoon);
    EXPECT_EQ(clock.count(), 1U);
}

TEST_F(RelayChrony, WantsPositioning) {
    loop.start_daemon();
    EXPECT_TRUE(loop.until(positioning_is_on));
}

TEST(RelayChronySample, OnlyAFixBySatellitesWithTimeAndDateTellsATime) {
    EXPECT_EQ(chrony_sample_time(rmc("120000.00")), kNoon);
    EXPECT_EQ(chrony_sample_time("$GPRMC,120000,A,4807.038,N,01131.000,E,,,211126,,*00\r\n"), kNoon);
    const std::string none[] = {rmc("120000.00", "211126", "V"),
                                rmc("120000.00", "211126", ""),
                                rmc("120000.00", "211126", "A", "E"),
                                rmc("120000.00", "211126", "A", "N"),
                                rmc("120000.00", "211126", "A", "S"),
                                rmc("120000.00", ""),
                                rmc("120000.00", "310226"),
                                rmc("", "211126"),
                                rmc("126000.00"),
                                rmc("235960.00", "311226"), // a leap second
                                "$GNRMC,120000.00,A",
                                "$GNGGA,120000.00,A,,,,,,,211126,,,A*00\r\n",
                                ""};
    for (const std::string& sentence : none) {
        EXPECT_EQ(chrony_sample_time(sentence), std::nullopt) << sentence;
    }
}

TEST(RelayChronySample, ADateIsPlausibleFor1024WeeksFrom2025On) {
    const auto plausible = [](const char* date) {
        return chrony_sample_is_plausible(chrony_sample_time(rmc("235959.999", date)).value());
    };
    EXPECT_FALSE(plausible("060180"));
    EXPECT_FALSE(plausible("010100"));
    EXPECT_FALSE(plausible("070407")); // 21 November 2026, 1,024 weeks early
    EXPECT_FALSE(plausible("311224"));
    EXPECT_TRUE(plausible("010125"));
    EXPECT_TRUE(plausible("160844"));
    EXPECT_FALSE(plausible("170844"));
}

struct RelayArrival : testing::Test {
    RelayArrival() {
        loop.second = std::chrono::seconds(1);
        loop.open(true);
        loop.start_daemon();
        hub_take([this](const HubItem& item) { arrivals.push_back(item.arrived); });
        EXPECT_TRUE(loop.until([&] { return positioning_is_on(); }));
    }
    // Lets the daemon send a sentence, which is read when it has lain there for a while.
    void send_and_read_after(std::chrono::milliseconds unread) {
        const size_t before = arrivals.size();
        ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, "$GNGGA\r\n")));
        const auto end = std::chrono::steady_clock::now() + unread;
        ASSERT_TRUE(wait_until([&] { return std::chrono::steady_clock::now() >= end; }));
        ASSERT_TRUE(loop.until([&] { return arrivals.size() > before; }));
    }
    // Whether the kernel tells when a datagram was sent; an emulator of user programs may not.
    static bool is_told() {
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        const int on = 1;
        const bool told = setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0;
        close(fd);
        return told;
    }

    RelayLoop loop;
    std::vector<std::optional<HubTime>> arrivals;
};

TEST_F(RelayArrival, IsWhenTheDaemonSentTheDatagram) {
    if (!is_told()) {
        GTEST_SKIP() << "the kernel does not tell";
    }
    // A loaded machine may read it too late; then another try.
    ASSERT_TRUE(wait_until([&] {
        const HubTime before = std::chrono::system_clock::now();
        send_and_read_after(std::chrono::milliseconds(20));
        const auto arrived = arrivals.back();
        return arrived && *arrived >= before - std::chrono::milliseconds(10) &&
               *arrived < before + std::chrono::milliseconds(10);
    }));
}

TEST_F(RelayArrival, IsNotToldWhenTheDatagramLayUnreadForLong) {
    if (!is_told()) {
        GTEST_SKIP() << "the kernel does not tell";
    }
    send_and_read_after(std::chrono::milliseconds(110));
    EXPECT_EQ(arrivals.back(), std::nullopt);
}

} // namespace
