// A daemon whose chip is on I2C, from the client's side; and the shipped one, which stays on SPI.
#include "support/harness.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

constexpr char kBanner[] = "TAVOR Version:V1.3\n";
constexpr char kFirstRead[] =
    "[mux][i2c][master][rx]===>****** i2c master check whether slave is alive ******\n";

// A board on whose I2C node the daemon looks for its chip.
struct I2c : BoardTest {
    I2c() : BoardTest({"--rate", "10"}, TAVOR_I2C_PROGRAM) {
        board.configure("SPI port path", "/dev/i2c-1");
    }
};

} // namespace

TEST_F(I2c, StartSentencesPositionCommandAndStop) {
    start();
    const auto banner = client.receive();
    ASSERT_TRUE(banner);
    EXPECT_EQ(payload_text(*banner), kBanner);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.receive_code(TAVOR_CODE_NMEA));
    }
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    EXPECT_EQ(client.ask(TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1"), 0);
    const auto answer = client.receive_code(TAVOR_CODE_CHIP);
    ASSERT_TRUE(answer);
    EXPECT_EQ(payload_text(*answer).rfind("$PZUL001,353,0", 0), 0U) << payload_text(*answer);
    stop();
    EXPECT_EQ(board.status("violations"), 0);
    const std::string log = daemon.log();
    EXPECT_NE(log.find("[mux][i2c][master][tx]===>Step 2_b:Send data to slave: success\r\n"),
              std::string::npos);
    EXPECT_EQ(log.find("mux_spi_master_demo"), std::string::npos);
}

using Spi = BoardTest;

TEST_F(Spi, ShippedDaemonStaysOnSpi) {
    board.configure("SPI port path", "/dev/i2c-1");
    start();
    EXPECT_TRUE(daemon.wait_log("[LOCSERV] ERR: [spi]can't set spi mode: 0\n"));
    stop();
    EXPECT_EQ(daemon.log().find("[mux][i2c]"), std::string::npos);
}

namespace {

struct Fault {
    const char* test;
    const char* name;
    const char* value;
    const char* line; // that the daemon reports, or the sign that it got over it
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name << "=" << fault.value;
}

constexpr char kProbeLimit[] =
    "[mux][i2c][master][rx]===>step_start: #### too many ERROR counter 6, now go to restart!!!!!\r\n";
constexpr char kProbeRetry[] = "[mux][i2c][master][rx]===>step_start:I2C master send err, try again...\r\n";
constexpr char kLengthLimit[] =
    "[mux][i2c][master][rx]===>step 1-b:###### too many ERROR counter 6, now restart!!!!!\r\n";
constexpr char kWriteLimit[] =
    "[mux][i2c][master][tx]===>Step 2_b: #### too many ERROR counter 6, now go to restart!!!!!\r\n";
constexpr char kWriteRetry[] = "[mux][i2c][master][tx]===>Step 2_b:I2C master receive err, try again...\r\n";
constexpr char kNothing[] =
    "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len is 0, request 0 B firstly;\r\n";
constexpr char kTooBig[] =
    "[mux][i2c][master][rx]===>step 1-b:I2c slave tx data len too big(expect:4095, actual:-1)\r\n";
constexpr char kRead[] = "[mux][i2c][master][rx]===>step 2-b:Receive slave tx_buff data success\r\n";
constexpr char kWritten[] = "[mux][i2c][master][tx]===>Step 2_b:Send data to slave: success\r\n";

class I2cFault : public I2c, public testing::WithParamInterface<Fault> {};

} // namespace

TEST_P(I2cFault, IsReportedThenTheChipWorksAgain) {
    board.fault(GetParam().name, GetParam().value);
    start();
    ASSERT_TRUE(daemon.wait_log(kFirstRead)) << "a command before the link is open is lost";
    ASSERT_TRUE(client.send(TAVOR_REQUEST_COMMAND, "353,1"));
    EXPECT_TRUE(daemon.wait_log(GetParam().line));
    board.fault("all", "off");
    EXPECT_TRUE(client.receive_code(TAVOR_CODE_POSITION)) << "without a start in between";
    stop();
    EXPECT_EQ(board.status("violations"), 0);
}

TEST_P(I2cFault, StartAndStopLeaveNothingBehind) {
    expect_nothing_left_behind(10, [&](int cycle) {
        board.fault(GetParam().name, GetParam().value);
        ASSERT_TRUE(client.send(TAVOR_REQUEST_COMMAND, "353,1"));
        std::this_thread::sleep_for(std::chrono::milliseconds(11 * cycle)); // stops at different places
    });
}

INSTANTIATE_TEST_SUITE_P(
    States, I2cFault,
    testing::Values(Fault{"Silence", "silence", "on", kProbeLimit},
                    Fault{"NobodyAtTheCommandPort", "i2c-nack", "always:0x50", kProbeLimit},
                    Fault{"CommandPortComesBack", "i2c-nack", "5:0x50", kProbeRetry},
                    Fault{"NobodyAtTheReadPort", "i2c-nack", "always:0x54", kLengthLimit},
                    Fault{"ReadPortComesBack", "i2c-nack", "5:0x54", kRead},
                    Fault{"NobodyAtTheWritePort", "i2c-nack", "always:0x58", kWriteLimit},
                    Fault{"WritePortComesBack", "i2c-nack", "5:0x58", kWriteRetry},
                    Fault{"EveryPortComesBack", "i2c-nack", "6", kProbeRetry},
                    Fault{"ShortReads", "i2c-short", "read", kRead},
                    Fault{"ShortWrites", "i2c-short", "write", kWritten},
                    Fault{"LengthZero", "zero-length", "on", kNothing},
                    Fault{"HostileLength", "hostile-length", "on", kTooBig},
                    Fault{"Zero", "zero", "on", kNothing}, Fault{"Garbage", "garbage", "on", kRead},
                    Fault{"GarbageData", "garbage", "data", kRead},
                    Fault{"NeverReady", "never-ready", "on", kLengthLimit},
                    Fault{"TransferFail", "transfer-fail", "always", kProbeLimit},
                    Fault{"TransferFailOften", "transfer-fail", "every:3", kRead},
                    Fault{"Bytewise", "bytewise", "on", kRead}),
    [](const auto& fault) { return std::string(fault.param.test); });
