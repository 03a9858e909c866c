#include "service/location_aiding.h"

#include "assist/xod_host_aiding.h"
#include "link/location_command.h"
#include "queue/service_state.h"
#include "service/location_file.h"
#include "support/capture.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace {

using std::string;

struct World {
    AidingPosition position = {}; // of the file
    int32_t position_result = 0;
    bool clock_set = false;
    time_t now = 0;
    std::vector<string> commands;
    std::vector<string> orbits; // asked for: constellation, week, time of week
} world;

struct LocationAiding : testing::Test {
    LocationAiding() {
        world = {};
        g_service_state.xod_enabled = 0;
    }
    ~LocationAiding() override {
        world = {};
    }

    static void set_clock(time_t now) {
        world.now = now;
        world.clock_set = true;
    }
    // Answers a request of this kind; returns what was printed.
    static string answer(const string& kind) {
        NmeaFields fields = {};
        fields.count = 3;
        strcpy(fields.field[0], "010");
        kind.copy(fields.field[1], kNmeaFieldSize - 1);
        return capture_stdout([&] { location_aiding_answer(&fields); });
    }

    // Answers a request for orbit data with these three fields.
    static void answer_orbit(const std::vector<string>& numbers) {
        NmeaFields fields = {};
        fields.count = static_cast<int32_t>(numbers.size()) + 2;
        strcpy(fields.field[1], "0");
        for (size_t i = 0; i < numbers.size(); ++i) {
            numbers[i].copy(fields.field[i + 2], kNmeaFieldSize - 1);
        }
        location_aiding_answer(&fields);
    }
};

constexpr time_t kNewYearsEve = 1735689599; // 2024-12-31 23:59:59

uint64_t packed(uint64_t year, uint64_t month, uint64_t day, uint64_t hour, uint64_t minute,
                uint64_t second) {
    return year | month << 16 | day << 24 | hour << 32 | minute << 40 | second << 48;
}

} // namespace

int32_t location_service_get_position(AidingPosition* out) {
    *out = world.position;
    return world.position_result;
}

int32_t location_command_send(const char* body) {
    world.commands.emplace_back(body);
    printf("sent %s\n", body);
    return 0;
}

int32_t xod_host_aiding(int8_t constellation, uint32_t week, int32_t tow_seconds) {
    world.orbits.push_back(std::to_string(constellation) + " " + std::to_string(week) + " " +
                           std::to_string(tow_seconds));
    return 0;
}

extern "C" {

time_t __real_time(time_t* out);

time_t __wrap_time(time_t* out) {
    return world.clock_set ? world.now : __real_time(out);
}
}

TEST_F(LocationAiding, UtcIsPacked) {
    set_clock(kNewYearsEve);
    EXPECT_EQ(location_service_get_utc(), packed(2024, 12, 31, 23, 59, 59));
    set_clock(0);
    EXPECT_EQ(location_service_get_utc(), packed(1970, 1, 1, 0, 0, 0));
}

TEST_F(LocationAiding, UtcIsThatOfNoTimeZone) {
    set_clock(kNewYearsEve);
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1); // New York's, without its file
    tzset();
    EXPECT_EQ(location_service_get_utc(), packed(2024, 12, 31, 23, 59, 59));
    unsetenv("TZ");
    tzset();
}

TEST_F(LocationAiding, ClockThatFailsOrTellsNoDateGivesNoUtc) {
    for (const auto& [now, failed] :
         {std::pair(time_t{-1}, "time"), {std::numeric_limits<time_t>::max(), "gmtime"}}) {
        set_clock(now);
        uint64_t utc = 99;
        EXPECT_EQ(capture_stdout([&] { utc = location_service_get_utc(); }),
                  string("[LOCSERV] ERR: location_service_get_utc ") + failed + " error\n");
        EXPECT_EQ(utc, 0U);
    }
}

TEST_F(LocationAiding, TimeIsAnsweredOnceAssistanceIsEnabled) {
    set_clock(1704164645); // 2024-01-02 03:04:05
    EXPECT_EQ(answer("1"), "");
    g_service_state.xod_enabled = 1;
    answer("1");
    EXPECT_EQ(world.commands, std::vector<string>{"590,2024,01,02,03,04,05"});
    g_service_state.xod_enabled = 2;
    answer("1");
    EXPECT_EQ(world.commands.size(), 1U);
    g_service_state.xod_enabled = 1;
    set_clock(-1);
    EXPECT_EQ(answer("1"),
              "[LOCSERV] ERR: location_service_get_utc time error\nsent 590,0000,00,00,00,00,00\n");
}

TEST_F(LocationAiding, PositionIsAnsweredFromTheFile) {
    world.position = {48.1173, -11.5166671, 592.26, 8.75, 4.7, 132.3, 2};
    const string line = "[LOCSERV] INF: aiding reference position: "
                        "48.117300,-11.516667,592.3,8.8,4.7,132.3,2.0\n";
    EXPECT_EQ(answer("2"), "sent 600,48.117300,-11.516667,592.3,8.8,4.7,132.3,2.0\n" + line)
        << "logged behind the send";
    world.position_result = -1; // half a position is logged and not sent
    EXPECT_EQ(answer("2"), line);
    EXPECT_EQ(world.commands.size(), 1U);
}

TEST_F(LocationAiding, HugePositionIsCutAtTheCommandsSize) {
    world.position = {1e300, 1e300, 1e300, 1e300, 1e300, 1e300, 1e300};
    answer("2");
    ASSERT_EQ(world.commands.size(), 1U);
    EXPECT_EQ(world.commands[0].size(), 351U);
}

TEST_F(LocationAiding, OrbitDataIsSentWithoutAssistanceEnabled) {
    for (const string kind : {"0", "", "x"}) {
        EXPECT_EQ(answer(kind), "");
    }
    EXPECT_EQ(world.orbits, std::vector<string>(3, "0 0 0"));
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(LocationAiding, OrbitDataIsForConstellationWeekAndTimeOfWeek) {
    answer_orbit({"3", "2391", "518400"});
    answer_orbit({"-1", "4294967295", "-3600"});
    answer_orbit({"258", "x", ""}); // a constellation is one byte
    EXPECT_EQ(world.orbits, (std::vector<string>{"3 2391 518400", "-1 2147483647 -3600", "2 0 0"}));
}

TEST_F(LocationAiding, OtherKindsAreIgnored) {
    g_service_state.xod_enabled = 1;
    for (const string kind : {"3", "-1", "10", "9999999999999999999", "4294967297", "4294967298"}) {
        EXPECT_EQ(answer(kind), "") << kind;
    }
    EXPECT_TRUE(world.orbits.empty());
    EXPECT_TRUE(world.commands.empty());
}
