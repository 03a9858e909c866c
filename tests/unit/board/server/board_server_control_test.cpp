// Control requests on a board of this process.
#include "interpose/wire.h"
#include "server/clock_file.h"
#include "server/control.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

struct BoardControl : testing::Test {
    BoardControl() {
        BoardOptions options;
        options.chip.source = ChipSource::none;
        board_init(board, options);
    }

    json ask(const json& request) {
        return json::parse(control_answer(target, request.dump()));
    }

    void power_on() {
        for (const auto& [node, text] : {std::pair{"export", "17"}, std::pair{"gpio17/direction", "out"},
                                         std::pair{"gpio17/value", "1"}}) {
            BoardFile file;
            ASSERT_EQ(board_open(board, file, std::string("/sys/class/gpio/") + node, O_WRONLY), 0);
            ASSERT_GT(board_node_write(board, file, text, strlen(text)), 0);
        }
    }

    Board board;
    BoardClock clock = {};
    ControlTarget target = {&board, &clock, nullptr, false};
};

TEST_F(BoardControl, StatusTellsOfChipAndDownloads) {
    json status = ask({{"command", "status"}});
    EXPECT_EQ(status["download"]["state"], "off");
    EXPECT_EQ(status["download"]["result"], nullptr);
    power_on();
    board.chip.status.aiding_orbits[2].verdict = "record 3: satellite 4, not 5";
    board.chip.status.first_fix_ms = 5200;
    status = ask({{"command", "status"}});
    EXPECT_EQ(status["ok"], true);
    EXPECT_EQ(status["powered"], true);
    EXPECT_EQ(status["cold_boots"], 1);
    EXPECT_EQ(status["faults"], json::array());
    EXPECT_EQ(status["aiding_position"]["verdict"], nullptr);
    EXPECT_EQ(status["aiding_orbits"]["galileo"]["verdict"], "record 3: satellite 4, not 5");
    EXPECT_TRUE(status["aiding_orbits"]["beidou"]["verdict"].is_null());
    EXPECT_EQ(status["first_fix_ms"], 5200);
    EXPECT_EQ(status["assisted"], false);
    EXPECT_EQ(status["download"]["state"], "firmware");
    EXPECT_EQ(status["download"]["bootable"], true);
    BoardFile file;
    ASSERT_EQ(board_open(board, file, "/dev/spidev1.0", O_RDWR), 0);
    ASSERT_EQ(board_spi_set(board, file, BoardSpiSetting::lsb_first, 1), 0);
    const uint8_t wake[] = {0x0C};
    ASSERT_EQ(board_node_write(board, file, wake, sizeof wake), 1);
    status = ask({{"command", "status"}});
    EXPECT_EQ(status["download"]["state"], "boot ROM");
    EXPECT_EQ(status["download"]["wake_ups"], 1);
    EXPECT_EQ(status["download"]["result"], "under way");
}

TEST_F(BoardControl, AFaultIsListedUntilItEnds) {
    EXPECT_EQ(ask({{"command", "fault"}, {"name", "silence"}, {"value", "on"}})["ok"], true);
    EXPECT_EQ(ask({{"command", "status"}})["faults"], json::array({"silence on"}));
    EXPECT_EQ(ask({{"command", "fault"}, {"name", "all"}, {"value", "off"}})["ok"], true);
    EXPECT_EQ(ask({{"command", "status"}})["faults"], json::array());
    EXPECT_EQ(ask({{"command", "faults"}})["faults"].size(),
              chip_fault_list().size() + assist_fault_list().size());
}

TEST_F(BoardControl, FaultsOfTheAssistanceServerNeedOne) {
    const json fault = {{"command", "fault"}, {"name", "assist-stall"}, {"value", "on"}};
    EXPECT_EQ(ask(fault)["ok"], false);
    EXPECT_TRUE(ask({{"command", "status"}})["assist"].is_null());
    AssistServer server;
    target.assist = &server;
    EXPECT_EQ(ask(fault)["ok"], true);
    EXPECT_EQ(ask({{"command", "status"}})["assist"]["faults"], json::array({"assist-stall on"}));
    EXPECT_EQ(ask({{"command", "fault"}, {"name", "all"}, {"value", "off"}})["ok"], true);
    EXPECT_EQ(ask({{"command", "status"}})["assist"]["faults"], json::array());
}

TEST_F(BoardControl, AnInjectedSentenceIsCompletedForAChipThatIsOn) {
    const json send = {{"command", "send"}, {"body", "GNTXT,01,01,02,hello"}};
    const json answer = ask(send);
    EXPECT_EQ(answer["ok"], false);
    EXPECT_NE(answer["error"], "");
    power_on();
    EXPECT_EQ(ask(send)["ok"], true);
    EXPECT_EQ(board_status(board).bytes_queued, strlen("$GNTXT,01,01,02,hello*00\r\n"));
}

TEST_F(BoardControl, TheRateIsBounded) {
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 0}})["ok"], false);
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 11}})["ok"], false);
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 4294967301}})["ok"], false) << "5 in 32 bits";
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 7}})["ok"], true);
    EXPECT_EQ(board.chip.options.rate_hz, 7U);
}

TEST_F(BoardControl, TheClockIsShownAndPutForward) {
    EXPECT_EQ(ask({{"command", "time"}})["speed"], 1);
    EXPECT_LE(ask({{"command", "time"}})["ahead_s"], 1);
    const json later = ask({{"command", "time"}, {"advance_s", 7200}});
    EXPECT_EQ(later["ok"], true);
    EXPECT_GE(later["ahead_s"], 7200);
    EXPECT_EQ(ask({{"command", "time"}, {"speed", 60}})["speed"], 60);
    const json there = ask({{"command", "time"}, {"set", "2100-02-28T23:59:59Z"}, {"speed", 1}});
    EXPECT_EQ(there["time"].get<std::string>().substr(0, 10), "2100-02-28") << there;
}

TEST_F(BoardControl, AClockThatCantGoThereStays) {
    for (const json& change :
         {json{{"advance_s", -1}}, json{{"advance_s", 366LL * 86400 + 1}}, json{{"advance_s", INT64_MAX}},
          json{{"set", "2001-01-01T00:00:00Z"}}, json{{"set", "2200-01-02T00:00:00Z"}},
          json{{"set", "tomorrow"}}, json{{"speed", 0}}, json{{"speed", 100001}}, json{{"speed", "fast"}}}) {
        json request = change;
        request["command"] = "time";
        EXPECT_EQ(ask(request)["ok"], false) << change;
    }
    EXPECT_FALSE(clock.own) << "it is the host's still";
}

TEST(ClockText, IsReadAsItIsWritten) {
    for (const char* text :
         {"1980-01-06T00:00:00Z", "2000-02-29T12:34:56Z", "2100-02-28T23:59:59Z", "2199-12-31T23:59:59Z"}) {
        int64_t utc = 0;
        ASSERT_TRUE(clock_parse(text, &utc)) << text;
        EXPECT_EQ(clock_text(utc), text);
        EXPECT_EQ(clock_text(utc + 999999999), text) << "rounded down";
    }
    int64_t utc = 0;
    EXPECT_TRUE(clock_parse("2031-02-03T04:05:06", &utc));
    EXPECT_EQ(utc, 1927857906LL * 1000000000);
    for (const char* text :
         {"", "2031", "2031-02-30T00:00:00Z", "2031-02-03T24:00:00Z", "2031-02-03 00:00:00",
          "2031-02-03T00:00:00+1", "1979-12-31T23:59:59Z", "2201-01-01T00:00:00Z"}) {
        EXPECT_FALSE(clock_parse(text, &utc)) << text;
    }
}

TEST_F(BoardControl, OnlyQuitEndsTheBoard) {
    ask({{"command", "status"}});
    ask({{"command", "nope"}});
    EXPECT_FALSE(target.quit);
    ask({{"command", "quit"}});
    EXPECT_TRUE(target.quit);
}

TEST_F(BoardControl, AFullCommandLogFitsOneAnswer) {
    power_on();
    const std::string body(kChipCommandMaxSize - 20, '\x01'); // six characters each in JSON
    for (size_t i = 0; i < kChipCommandLogSize; ++i) {
        board.chip.commands.log.push_back({std::to_string(i) + body, false, 0});
    }
    const std::string text = control_answer(target, R"({"command":"commands"})");
    EXPECT_LE(text.size(), kWirePayloadMax);
    const json answer = json::parse(text);
    const size_t count = answer["commands"].size();
    EXPECT_GT(count, 10U);
    EXPECT_EQ(answer["left_out"], kChipCommandLogSize - count);
    EXPECT_EQ(answer["commands"].back()["text"], std::to_string(kChipCommandLogSize - 1) + body)
        << "the newest";
}

TEST_F(BoardControl, BytesThatAreNoTextAreShownSomehow) {
    board.chip.commands.log.push_back({"$\xFF\xFE", false, 0});
    EXPECT_EQ(ask({{"command", "commands"}})["commands"].size(), 1U);
}

} // namespace
