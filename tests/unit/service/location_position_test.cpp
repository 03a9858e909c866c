#include "service/location_position.h"

#include "assist/xod_host_aiding.h"
#include "config/location_config.h"
#include "link/location_command.h"
#include "queue/service_state.h"
#include "service/location_aiding.h"
#include "support/capture.h"
#include "support/private_dir.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace {

using std::string;

struct Reply {
    uint32_t id;
    uint32_t value;
    string payload;
};

struct World {
    string path;
    std::vector<string> commands;
    std::vector<string> orbits; // asked for: constellation, week, time of week
    std::vector<Reply> replies;
    size_t answered_before_reply = 0; // commands and orbits
    bool clock_set = false;
    time_t now = 0;
} world;

void record_reply(uint32_t id, uint32_t value, const void* payload, uint32_t length) {
    world.replies.push_back({id, value, string(static_cast<const char*>(payload), length)});
    world.answered_before_reply = world.commands.size() + world.orbits.size();
}

struct LocationPosition : testing::Test {
    LocationPosition() {
        world = {};
        world.path = dir.path / "location.dat";
        g_service_state.location = {};
        g_service_state.xod_enabled = 0;
        g_service_state.response = record_reply;
    }

    // Both return what was printed.
    static string nmea(const string& sentence) {
        return capture_stdout(
            [&] { location_service_nmea_handle(sentence.c_str(), static_cast<uint32_t>(sentence.size())); });
    }
    static string pzul(const string& sentence) {
        return capture_stdout(
            [&] { location_service_pzul_handle(sentence.c_str(), static_cast<uint32_t>(sentence.size())); });
    }
    static string seen(const string& sentence) {
        return "[LOCSERV] INF: " + sentence + ", " + std::to_string(sentence.size()) + "\n";
    }
    void expect_passed_on(const string& sentence) {
        ASSERT_EQ(world.replies.size(), 1U);
        EXPECT_EQ(world.replies[0].id, 7U);
        EXPECT_EQ(world.replies[0].value, 0U);
        EXPECT_EQ(world.replies[0].payload, sentence);
    }

    // Writes the location file: latitude, longitude, height, the axes and orientation of the ellipse,
    // vertical.
    void write_position(const std::vector<string>& values) const {
        const string keys[] = {"latitude",    "longitude",          "height", "majorAxis", "minorAxis",
                               "orientation", "verticalUncertainty"};
        string content;
        for (size_t i = 0; i < values.size(); ++i) {
            content += keys[i] + "=" + values[i] + "\n";
        }
        dir.write("location.dat", content);
    }
    static void set_clock(time_t now) {
        world.now = now;
        world.clock_set = true;
    }
    // Answers a request of this kind, for orbit data with these numbers; returns what was printed.
    static string answer(const string& kind, const std::vector<string>& numbers = {""}) {
        NmeaFields fields = {};
        fields.count = static_cast<int32_t>(numbers.size()) + 2;
        kind.copy(fields.field[1], kNmeaFieldSize - 1);
        for (size_t i = 0; i < numbers.size(); ++i) {
            numbers[i].copy(fields.field[i + 2], kNmeaFieldSize - 1);
        }
        return capture_stdout([&] { location_aiding_answer(&fields); });
    }

    PrivateDir dir;
};

constexpr time_t kNewYearsEve = 1735689599; // 2024-12-31 23:59:59

uint64_t packed(uint64_t year, uint64_t month, uint64_t day, uint64_t hour, uint64_t minute,
                uint64_t second) {
    return year | month << 16 | day << 24 | hour << 32 | minute << 40 | second << 48;
}

const string kGga = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,45.4,M,46.9,M,,*47\r\n";

// The record as the client reads it: offset of each field and its text.
string text_at(const string& block, size_t offset) {
    return string(block.c_str() + offset);
}

} // namespace

void location_config_get_nmea_path(char* path) {
    path[world.path.copy(path, kConfigTextSize - 1)] = '\0';
}

void location_config_get_keep_good_files(int32_t* keep) {
    *keep = 0;
}

int32_t xod_host_aiding(int8_t constellation, uint32_t week, int32_t tow_seconds) {
    world.orbits.push_back(std::to_string(constellation) + " " + std::to_string(week) + " " +
                           std::to_string(tow_seconds));
    return 0;
}

int32_t location_command_send(const char* body) {
    world.commands.emplace_back(body);
    printf("sent %s\n", body);
    return 0;
}

extern "C" {

time_t __real_time(time_t* out);
time_t __wrap_time(time_t* out) {
    return world.clock_set ? world.now : __real_time(out);
}
}

TEST_F(LocationPosition, GgaSendsThePositionBlock) {
    EXPECT_EQ(nmea(kGga), "");
    ASSERT_EQ(world.replies.size(), 1U);
    EXPECT_EQ(world.replies[0].id, 14U);
    EXPECT_EQ(world.replies[0].value, 0U);
    const string& block = world.replies[0].payload;
    ASSERT_EQ(block.size(), 256U);
    EXPECT_EQ(text_at(block, 0), "123519");
    EXPECT_EQ(text_at(block, 12), "48.117300");
    EXPECT_EQ(text_at(block, 27), "11.516667");
    EXPECT_EQ(text_at(block, 42), "92.300000");
    EXPECT_EQ(block.substr(94), string(162, '\0'));
}

TEST_F(LocationPosition, ShortGgaOrItsNameAnywhereSendsTheUnchangedRecord) {
    nmea(kGga);
    nmea("$GPGGA,235959,1*00\r\n");
    nmea("$GPXYZ,1,2,GGA,4*00\r\n");
    ASSERT_EQ(world.replies.size(), 3U);
    EXPECT_EQ(world.replies[1].payload, world.replies[0].payload);
    EXPECT_EQ(world.replies[2].payload, world.replies[0].payload);
}

TEST_F(LocationPosition, GgaWithoutAPositionSendsNothing) {
    nmea("$GPGGA,,,,,,0,,,,M,,M,,*66\r\n");
    nmea("$GPGGA*56\r\n");
    EXPECT_TRUE(world.replies.empty());
}

TEST_F(LocationPosition, OtherSentencesAndTheBannerSendNothing) {
    nmea("$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n");
    nmea(string("TAVOR Version:V1.3\n\0", 20));
    nmea("");
    location_service_nmea_handle(nullptr, 20);
    EXPECT_TRUE(world.replies.empty());
}

TEST_F(LocationPosition, PzulSentenceOfNineBytesIsDropped) {
    EXPECT_EQ(pzul("$PZUL*5\r\n"), "");
    location_service_pzul_handle(nullptr, 100);
    EXPECT_TRUE(world.replies.empty());
}

TEST_F(LocationPosition, PzulSentenceOfTenBytesReachesTheClient) {
    const string sentence = "$PZUL*5C\r\n";
    EXPECT_EQ(pzul(sentence), seen(sentence));
    expect_passed_on(sentence);
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(LocationPosition, ResponsesOfOtherNumbersArePassedOnOnly) {
    for (const string number : {"001", "100", "011", "9999999999999999999", "4294967306"}) {
        world.replies.clear();
        const string sentence = "$PZUL" + number + ",2,0,0*00\r\n";
        EXPECT_EQ(pzul(sentence), seen(sentence));
        expect_passed_on(sentence);
    }
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(LocationPosition, RequestOfTwoFieldsIsLoggedAndAnswered) {
    const string sentence = "$PZUL010,2*00\r\n";
    write_position({"2", "1", "6", "3", "4", "5", "7"});
    EXPECT_EQ(pzul(sentence),
              seen(sentence) +
                  "[LOCSERV] ERR: location_demo_app_cmd_rsp_callback, param number error: 10\n"
                  "sent 600,2.000000,1.000000,6.0,3.0,4.0,5.0,7.0\n"
                  "[LOCSERV] INF: aiding reference position: 2.000000,1.000000,6.0,3.0,4.0,5.0,7.0\n");
    expect_passed_on(sentence);
    EXPECT_EQ(world.answered_before_reply, 1U) << "the chip comes first";
}

TEST_F(LocationPosition, RequestOfThreeFieldsIsNoErrorAndWithoutAFileItIsNotAnswered) {
    const string sentence = "$PZUL10,2,0*00\r\n";
    EXPECT_EQ(pzul(sentence),
              seen(sentence) + "[LOCSERV] ERR: location_service_get_position open fail, " + world.path +
                  "\n[LOCSERV] INF: aiding reference position: 0.000000,0.000000,0.0,0.0,0.0,0.0,0.0\n");
    EXPECT_TRUE(world.commands.empty());
    expect_passed_on(sentence);
}

TEST_F(LocationPosition, OrbitRequestIsAnsweredAndPassedOn) {
    const string sentence = "$PZUL010,0,1,2391,7200*00\r\n";
    EXPECT_EQ(pzul(sentence), seen(sentence));
    EXPECT_EQ(world.orbits, std::vector<string>{"1 2391 7200"});
    EXPECT_TRUE(world.commands.empty());
    expect_passed_on(sentence);
}

TEST_F(LocationPosition, SentenceWithANulIsPassedOnWhole) {
    const string sentence("$PZUL123,a\0b*00\r\n", 17);
    EXPECT_EQ(pzul(sentence), "[LOCSERV] INF: $PZUL123,a, 17\n");
    expect_passed_on(sentence);
}

TEST_F(LocationPosition, UtcIsPacked) {
    set_clock(kNewYearsEve);
    EXPECT_EQ(location_service_get_utc(), packed(2024, 12, 31, 23, 59, 59));
    set_clock(0);
    EXPECT_EQ(location_service_get_utc(), packed(1970, 1, 1, 0, 0, 0));
}

TEST_F(LocationPosition, UtcIsThatOfNoTimeZone) {
    set_clock(kNewYearsEve);
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1); // New York's, without its file
    tzset();
    EXPECT_EQ(location_service_get_utc(), packed(2024, 12, 31, 23, 59, 59));
    unsetenv("TZ");
    tzset();
}

TEST_F(LocationPosition, ClockThatFailsOrTellsNoDateGivesNoUtc) {
    for (const auto& [now, failed] :
         {std::pair(time_t{-1}, "time"), {std::numeric_limits<time_t>::max(), "gmtime"}}) {
        set_clock(now);
        uint64_t utc = 99;
        EXPECT_EQ(capture_stdout([&] { utc = location_service_get_utc(); }),
                  string("[LOCSERV] ERR: location_service_get_utc ") + failed + " error\n");
        EXPECT_EQ(utc, 0U);
    }
}

TEST_F(LocationPosition, TimeIsAnsweredOnceAssistanceIsEnabled) {
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

TEST_F(LocationPosition, PositionIsAnsweredFromTheFile) {
    std::vector<string> values = {"48.1173", "-11.5166671", "592.26", "8.75", "4.7", "132.3", "2"};
    write_position(values);
    const string answered = "48.117300,-11.516667,592.3,8.8,4.7,132.3,";
    const string line = "[LOCSERV] INF: aiding reference position: " + answered;
    EXPECT_EQ(answer("2"), "sent 600," + answered + "2.0\n" + line + "2.0\n") << "logged behind the send";
    values.pop_back(); // half a position is logged and not sent
    write_position(values);
    EXPECT_EQ(answer("2"), line + "0.0\n");
    EXPECT_EQ(world.commands.size(), 1U);
}

TEST_F(LocationPosition, HugePositionIsCutAtTheCommandsSize) {
    write_position(std::vector<string>(7, "1e300"));
    answer("2");
    ASSERT_EQ(world.commands.size(), 1U);
    EXPECT_EQ(world.commands[0].size(), 351U);
}

TEST_F(LocationPosition, OrbitDataIsSentWithoutAssistanceEnabled) {
    for (const string kind : {"0", "", "x"}) {
        EXPECT_EQ(answer(kind), "");
    }
    EXPECT_EQ(world.orbits, std::vector<string>(3, "0 0 0"));
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(LocationPosition, OrbitDataIsForConstellationWeekAndTimeOfWeek) {
    answer("0", {"3", "2391", "518400"});
    answer("0", {"-1", "4294967295", "-3600"});
    answer("0", {"258", "x", ""}); // a constellation is one byte
    EXPECT_EQ(world.orbits, (std::vector<string>{"3 2391 518400", "-1 2147483647 -3600", "2 0 0"}));
}

TEST_F(LocationPosition, OtherKindsAreIgnored) {
    g_service_state.xod_enabled = 1;
    for (const string kind : {"3", "-1", "10", "9999999999999999999", "4294967297", "4294967298"}) {
        EXPECT_EQ(answer(kind), "") << kind;
    }
    EXPECT_TRUE(world.orbits.empty());
    EXPECT_TRUE(world.commands.empty());
}
