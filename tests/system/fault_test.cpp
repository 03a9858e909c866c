// A stop is answered in every state of the chip, again and again, and nothing is left behind.
#include "support/harness.h"

#include <gtest/gtest.h>
#include <regex>
#include <thread>

namespace {

struct Fault {
    const char* test;
    const char* name;
    const char* value;
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name << "=" << fault.value;
}

} // namespace

class FaultState : public BoardTest, public testing::WithParamInterface<Fault> {
protected:
    FaultState() : BoardTest({"--full-speed"}) {}
};

TEST_P(FaultState, StartAndStopManyTimesLeavesNothingBehind) {
    if (GetParam().name[0] != '\0') {
        board.fault(GetParam().name, GetParam().value);
    }
    expect_nothing_left_behind(200, [](int cycle) {
        std::this_thread::sleep_for(std::chrono::milliseconds(cycle % 8)); // stops at different places
    });
}

INSTANTIATE_TEST_SUITE_P(
    States, FaultState,
    testing::Values(Fault{"None", "", ""}, Fault{"Silence", "silence", "on"}, Fault{"Zero", "zero", "on"},
                    Fault{"LengthZero", "zero-length", "on"}, Fault{"Garbage", "garbage", "on"},
                    Fault{"GarbageStatus", "garbage", "status"}, Fault{"GarbageData", "garbage", "data"},
                    Fault{"Unpowered", "unpowered", "on"}, Fault{"NeverReady", "never-ready", "on"},
                    Fault{"StatusError", "status-error", "always"},
                    Fault{"StatusErrorOnce", "status-error", "once"},
                    Fault{"TransferFail", "transfer-fail", "always"},
                    Fault{"TransferFailOften", "transfer-fail", "every:3"},
                    Fault{"Bytewise", "bytewise", "on"}, Fault{"HostileLength", "hostile-length", "on"}),
    [](const auto& fault) { return std::string(fault.param.test); });

// A chip that holds up each command for as long as it may, and how many commands stand before the stop.
class QueuedCommands : public SilentBoardTest,
                       public testing::WithParamInterface<std::tuple<const char*, int>> {};

TEST_P(QueuedCommands, StopIsAnsweredSoon) {
    const auto& [fault, commands] = GetParam();
    start();
    board.fault(fault, "on");
    for (int i = 0; i < commands; ++i) {
        ASSERT_TRUE(client.send(TAVOR_REQUEST_COMMAND, "353,1"));
    }
    const TestClient stopper(board.socket_path());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(stopper.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    EXPECT_NE(board.ctl({"status", "--json"}).find("\"powered\":false"), std::string::npos);

    board.fault("all", "off");
    start();
    EXPECT_TRUE(wait_until([&] { // the link opens after the answer; no stop is announced any more
        return client.ask(TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1") == 0;
    }));
}

INSTANTIATE_TEST_SUITE_P(Faults, QueuedCommands,
                         testing::Combine(testing::Values("zero", "silence", "garbage", "never-ready"),
                                          testing::Values(20, 100, 700)),
                         [](const auto& row) {
                             const std::string fault = std::get<0>(row.param);
                             return std::regex_replace(fault, std::regex("-"), "") +
                                    std::to_string(std::get<1>(row.param));
                         });

using Backlog = SilentBoardTest;

TEST_F(Backlog, ArrivesWhole) {
    start();
    board.fault("backlog", "60000");
    const long long produced = board.status("sentences_produced");
    ASSERT_GT(produced, 500);
    for (long long i = 0; i < produced; ++i) {
        tavor_response sentence = {};
        do {
            const auto response = client.receive_code(TAVOR_CODE_NMEA);
            ASSERT_TRUE(response) << i << " of " << produced;
            sentence = *response;
        } while (sentence.payload[0] != '$');
    }
}
