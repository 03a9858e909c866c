#include "service/location_position.h"

#include "assist/xod_host_aiding.h"
#include "config/location_config.h"
#include "link/location_command.h"
#include "queue/service_state.h"
#include "support/capture.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>
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

    PrivateDir dir;
};

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
    return 0;
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
    dir.write("location.dat", "longitude=1\nlatitude=2\nmajorAxis=3\nminorAxis=4\norientation=5\nheight=6\n"
                              "verticalUncertainty=7\n");
    EXPECT_EQ(pzul(sentence),
              seen(sentence) +
                  "[LOCSERV] ERR: location_demo_app_cmd_rsp_callback, param number error: 10\n"
                  "[LOCSERV] INF: aiding reference position: 2.000000,1.000000,6.0,3.0,4.0,5.0,7.0\n");
    EXPECT_EQ(world.commands, std::vector<string>{"600,2.000000,1.000000,6.0,3.0,4.0,5.0,7.0"});
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
