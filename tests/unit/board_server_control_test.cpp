// Control requests on a board of this process.
#include "interpose/wire.h"
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
        return json::parse(control_answer(board, request.dump(), &quit));
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
    bool quit = false;
};

TEST_F(BoardControl, StatusHasTheNumbersOfTheChip) {
    power_on();
    const json status = ask({{"command", "status"}});
    EXPECT_EQ(status["ok"], true);
    EXPECT_EQ(status["powered"], true);
    EXPECT_EQ(status["cold_boots"], 1);
    EXPECT_EQ(status["faults"], json::array());
    EXPECT_EQ(status["aiding_position"]["verdict"], nullptr);
}

TEST_F(BoardControl, AFaultIsListedUntilItEnds) {
    EXPECT_EQ(ask({{"command", "fault"}, {"name", "silence"}, {"value", "on"}})["ok"], true);
    EXPECT_EQ(ask({{"command", "status"}})["faults"], json::array({"silence on"}));
    EXPECT_EQ(ask({{"command", "fault"}, {"name", "all"}, {"value", "off"}})["ok"], true);
    EXPECT_EQ(ask({{"command", "status"}})["faults"], json::array());
    EXPECT_EQ(ask({{"command", "faults"}})["faults"].size(), chip_fault_table().size());
}

TEST_F(BoardControl, AnInjectedSentenceIsCompleted) {
    power_on();
    EXPECT_EQ(ask({{"command", "send"}, {"body", "GNTXT,01,01,02,hello"}})["ok"], true);
    const ChipStatus status = board_status(board);
    EXPECT_EQ(status.bytes_queued, strlen("$GNTXT,01,01,02,hello*00\r\n"));
}

TEST_F(BoardControl, AChipThatIsOffSendsNothing) {
    const json answer = ask({{"command", "send"}, {"body", "X"}});
    EXPECT_EQ(answer["ok"], false);
    EXPECT_NE(answer["error"], "");
}

TEST_F(BoardControl, TheRateIsBounded) {
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 0}})["ok"], false);
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 11}})["ok"], false);
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 4294967301}})["ok"], false) << "5 in 32 bits";
    EXPECT_EQ(ask({{"command", "rate"}, {"hz", 7}})["ok"], true);
    EXPECT_EQ(board.chip.options.rate_hz, 7U);
}

TEST_F(BoardControl, OnlyQuitEndsTheBoard) {
    ask({{"command", "status"}});
    ask({{"command", "nope"}});
    EXPECT_FALSE(quit);
    ask({{"command", "quit"}});
    EXPECT_TRUE(quit);
}

TEST_F(BoardControl, AFullCommandLogFitsOneAnswer) {
    power_on();
    const std::string body(kChipCommandMaxSize - 20, '\x01'); // six characters each in JSON
    for (size_t i = 0; i < kChipCommandLogSize; ++i) {
        board.chip.commands.log.push_back({std::to_string(i) + body, false, 0});
    }
    const std::string text = control_answer(board, R"({"command":"commands"})", &quit);
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
