#include "download/hdl_brom.h"

#include "base/stop_request.h"
#include "brom_link.h"
#include "download/hdl_echo.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "support/fake_clock.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <string>

namespace {

using std::string;

constexpr uint16_t kError = 0x1D01;
const string kGivenUp = "[E] download given up: another request waits and the chip makes no progress";

struct Brom : BromTest {
    // Answers of a boot ROM that is in step: complements of the handshake bytes.
    static void answer_handshake(size_t from) {
        const uint8_t complements[] = {0x5F, 0xF5, 0xAF, 0xFA};
        for (size_t i = 0; i < 4; ++i) {
            brom_link.answers[from + i] = {{complements[i]}};
        }
    }
    // A hundred of them, each in its second byte.
    static void garble_handshakes() {
        for (size_t i = 0; i < 100; ++i) {
            brom_link.answers[2 * i] = {{0x5F}};
            brom_link.answers[2 * i + 1] = {{0x00}};
        }
    }
    bool handshake() {
        return run([] { return hdl_brom_handshake(); });
    }
    bool read_uid() {
        return run([this] { return hdl_brom_read_uid(uid.data()); });
    }
    bool set_register() {
        return run([] { return hdl_brom_set_register(0xA2080000, 0x10); });
    }
    bool set_baudrate() {
        return run([] { return hdl_brom_set_baudrate(921600); });
    }
    bool jump() {
        return run([] { return hdl_brom_jump_da(); });
    }
    string last() const {
        return log.empty() ? "" : log.back();
    }

    Bytes uid = Bytes(kBromUidSize, 0x55);
};

void answer_register_statuses(uint16_t first, uint16_t second) {
    brom_link.answers[2] = {le32(1), le16(first)};
    brom_link.answers[3] = {le16(0x10), le16(second)};
}

Bytes uid_response(uint16_t status) {
    Bytes response(19);
    std::iota(response.begin(), response.end(), uint8_t{0});
    response[0] = 0xE9;
    response[17] = static_cast<uint8_t>(status >> 8U);
    response[18] = static_cast<uint8_t>(status);
    return response;
}

} // namespace

TEST_F(Brom, HandshakePowerCyclesAndSynchronises) {
    answer_handshake(0);
    brom_link.at_power_on = [] { puts("power on"); };
    EXPECT_TRUE(handshake());
    EXPECT_EQ(brom_link.power, (Lines{"off at 0 ms", "on at 500 ms"}));
    EXPECT_EQ(sent_as_text(), (Lines{"A0", "0A", "50", "05"}));
    EXPECT_EQ(fake_clock.slept, (Times{500, 20, 10, 20, 10, 20, 10, 20, 10, 20}));
    EXPECT_EQ(log, (Lines{"[I] Please reboot chip again:", "power on", "[I] echoU8 Send 0xA0",
                          "[I] echoU8 receiveChar 0x5F", "[I] echoU8 Send 0xA", "[I] echoU8 receiveChar 0xF5",
                          "[I] echoU8 Send 0x50", "[I] echoU8 receiveChar 0xAF", "[I] echoU8 Send 0x5",
                          "[I] echoU8 receiveChar 0xFA"}));
}

TEST_F(Brom, HandshakeRepeatsItsFirstByte) {
    brom_link.answers[0] = {};
    brom_link.answers[1] = {{0x00}};
    answer_handshake(2);
    EXPECT_TRUE(handshake());
    EXPECT_EQ(sent_as_text(), (Lines{"A0", "A0", "A0", "0A", "50", "05"}));
    EXPECT_EQ(brom_link.power.size(), 2U);
}

TEST_F(Brom, SilentChipEndsTheHandshakeBehind10Seconds) {
    for (const bool late : {false, true}) { // by a millisecond, at 10000 ms
        fake_clock_start();
        brom_link = {};
        brom_link.silent = true;
        brom_link.at_receive = [late] { fake_clock.now_ms += late && brom_link.sent.size() == 250 ? 1 : 0; };
        EXPECT_FALSE(handshake());
        EXPECT_EQ(brom_link.power, (Lines{"off at 0 ms", "on at 500 ms"}));
        EXPECT_EQ(brom_link.sent.size(), late ? 250U : 251U);
        EXPECT_EQ(last(), "[E] Handshake timeout, please retry!");
    }
}

TEST_F(Brom, HandshakeLastsAsLongWhenTheClockIsSet) {
    for (const int64_t step_ms : {-kHourMs, kHourMs}) {
        fake_clock_start();
        brom_link = {};
        brom_link.silent = true;
        brom_link.at_power_on = [step_ms] { fake_clock.set_ms += step_ms; };
        EXPECT_FALSE(handshake());
        EXPECT_EQ(fake_clock_slept(), 500 + 10040) << step_ms;
        EXPECT_EQ(last(), "[E] Handshake timeout, please retry!");
    }
}

TEST_F(Brom, GarbledHandshakeByteStartsAllOverAgain) {
    for (const size_t garbled : {1U, 2U, 3U}) {
        brom_link = {};
        answer_handshake(0);
        brom_link.answers[garbled] = {{0x00}};
        answer_handshake(garbled + 1); // the rest is skipped
        fake_clock_start();
        EXPECT_TRUE(handshake()) << garbled;
        EXPECT_EQ(brom_link.sent.size(), garbled + 1 + 4);
        const int64_t again = 500 + 30 * static_cast<int64_t>(garbled + 1) + 2000;
        EXPECT_EQ(brom_link.power,
                  (Lines{"off at 0 ms", "on at 500 ms", "off at " + std::to_string(again) + " ms",
                         "on at " + std::to_string(again + 500) + " ms"}));
    }
}

TEST_F(Brom, GarbledHandshakesAreRepeatedWithoutEnd) {
    garble_handshakes(); // more than 200 s: the limit starts afresh each time
    answer_handshake(200);
    EXPECT_TRUE(handshake());
    EXPECT_EQ(brom_link.power.size(), 2 * 101U);
}

TEST_F(Brom, HandshakesGarbledInARowEndWhenAStopWaits) {
    garble_handshakes();
    const StopRequest stop;
    EXPECT_FALSE(handshake());
    EXPECT_EQ(brom_link.power.size(), 4U) << "one round more than the first that was garbled";
    EXPECT_EQ(last(), kGivenUp);
}

TEST_F(Brom, StopThatComesInThePauseBetweenHandshakesEndsIt) {
    garble_handshakes();
    std::optional<StopRequest> stop;
    fake_clock.at_sleep = [&stop] {
        if (brom_link.power.size() == 6 && brom_link.sent.size() == 6 && fake_clock.slept.back() == 100) {
            stop.emplace();
        }
    };
    EXPECT_FALSE(handshake());
    EXPECT_EQ(brom_link.power.size(), 6U);
    EXPECT_EQ(std::count(fake_clock.slept.begin(), fake_clock.slept.end(), 100), 20 + 20 + 1);
}

TEST_F(Brom, OneGarbledHandshakeByteIsOvercomeWhileAStopWaits) {
    answer_handshake(0);
    brom_link.answers[1] = {{0x00}};
    for (size_t i = 2; i < 20; ++i) { // the chip needs a while to come up again
        brom_link.answers[i] = {};
    }
    answer_handshake(20);
    const StopRequest stop;
    EXPECT_TRUE(handshake());
    brom_link = {};
    answer_handshake(0);
    EXPECT_TRUE(handshake()) << "one that works at once";
}

TEST_F(Brom, SilentChipIsGivenUpTwoSecondsAfterItsPowerWhenAStopWaits) {
    brom_link.silent = true;
    const StopRequest stop;
    EXPECT_FALSE(handshake());
    EXPECT_EQ(fake_clock_slept(), 500 + 2000);
    EXPECT_EQ(last(), kGivenUp);
}

TEST_F(Brom, WordIsGivenUpWithTheDownload) {
    const StopRequest stop;
    hdl_progress_mark();
    fake_clock.now_ms += 1500;
    uint16_t word = 0;
    EXPECT_FALSE(run([&word] { return readU16(&word); }));
    EXPECT_EQ(fake_clock_slept(), 500);
}

TEST_F(Brom, PowerLineThatCantBeDrivenLeavesTheTimeLimit) {
    brom_link.power_result = -1;
    brom_link.silent = true;
    EXPECT_FALSE(handshake());
    EXPECT_EQ(last(), "[E] Handshake timeout, please retry!");
    brom_link = {};
    brom_link.power_result = -1;
    answer_handshake(0);
    EXPECT_TRUE(handshake());
}

TEST_F(Brom, UidIsTheMiddleOfTheResponse) {
    brom_link.answers[0] = {uid_response(0x1001)};
    EXPECT_TRUE(read_uid());
    EXPECT_EQ(sent_as_text(), (Lines{"E9"}));
    EXPECT_EQ(uid, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(fake_clock.slept, (Times{100}));
    EXPECT_EQ(log, Lines{});
}

TEST_F(Brom, UidIsWhatComesBehindItsFirstByte) {
    const string failed = "[E] BRom_1Bytes_req_19Bytes_rsp, result = fail, ";
    const string timeout = "[E] BRom_1Bytes_req_19Bytes_rsp timeout, please retry!";
    const auto status = [&](const string& code) {
        return Lines{failed + "error_code = 0x" + code + ", error_message = response error code"};
    };
    const Bytes all = uid_response(0x2000);
    const struct {
        const char* what;
        std::vector<Bytes> answer;
        bool result;
        Lines log;
        std::vector<uint32_t> asked; // empty: of no matter
    } rows[] = {
        {"a status is information only", {uid_response(0x1000)}, true, status("1000"), {19}},
        {"no status", {uid_response(0)}, true, status("0"), {19}},
        {"a low status", {uid_response(0x0234)}, true, status("234"), {19}},
        {"pieces",
         {{all[0]}, {}, Bytes(all.begin() + 1, all.begin() + 18), {all[18]}},
         true,
         {},
         {19, 18, 18, 1}},
        {"a foreign response fails with its second byte",
         {{0x42}, {0x01}, {0x02}},
         false,
         {failed + "input_value = 0xE9, output_value = 0x42, error_message = input output mismatch"},
         {19, 18}},
        {"a foreign byte alone", {{0x42}}, false, {timeout}, {}},
        {"not all", {{0xE9}, Bytes(17, 1)}, false, {timeout}, {}},
    };
    for (const auto& row : rows) {
        fake_clock_start();
        brom_link = {};
        brom_link.answers[0] = row.answer;
        uid.assign(kBromUidSize, 0x55);
        EXPECT_EQ(read_uid(), row.result) << row.what;
        EXPECT_EQ(log, row.log) << row.what;
        EXPECT_EQ(uid, row.result ? Bytes(all.begin() + 1, all.begin() + 17) : Bytes(kBromUidSize, 0x55));
        EXPECT_TRUE(row.asked.empty() || brom_link.asked == row.asked) << row.what;
        EXPECT_TRUE(row.log != Lines{timeout} || fake_clock_slept() == 100 + 500) << row.what;
    }
}

TEST_F(Brom, UidWaitsAsLongWhenTheClockIsSet) {
    for (const int64_t step_ms : {-kHourMs, kHourMs}) {
        fake_clock_start();
        brom_link = {};
        brom_link.answers[0] = {};
        brom_link.at_receive = [step_ms] { fake_clock.set_ms += brom_link.asked.size() == 2 ? step_ms : 0; };
        EXPECT_FALSE(read_uid());
        EXPECT_EQ(fake_clock_slept(), 100 + 500) << step_ms;
    }
}

TEST_F(Brom, UidRequestThatCantBeSentFails) {
    brom_link.failing_send = 0;
    EXPECT_FALSE(read_uid());
    EXPECT_TRUE(fake_clock.slept.empty());
    EXPECT_EQ(log, Lines{});
}

TEST_F(Brom, RegisterIsWrittenInTheOrderOfTheLink) {
    answer_register_statuses(0, 0x0FFF);
    EXPECT_TRUE(set_register());
    EXPECT_EQ(sent_as_text(), (Lines{"D2", "000008A2", "01000000", "1000"}));
    EXPECT_EQ(log, (Lines{"[I] hdl_brom_set_register addr(0xA2080000) val(0x10)", "[I] echoU8 Send 0xD2",
                          "[I] echoU8 receiveChar 0xD2", "[I] echoU32 Send 0xA2080000",
                          "[I] echoU32 Send 0x1", "[I] echoU16 Send 0x10"}));
    brom_link = {};
    g_download_settings.link_type = HDL_LINK_UART;
    brom_link.answers[2] = {{0, 0, 0, 1}, {0x0F, 0xFF}};
    brom_link.answers[3] = {{0x00, 0x10}, {0x00, 0x01}};
    EXPECT_TRUE(set_register());
    EXPECT_EQ(sent_as_text(), (Lines{"D2", "A2080000", "00000001", "0010"}));
}

TEST_F(Brom, RegistersDependOnTheVariant) {
    const auto set_registers = [this](uint32_t variant) {
        brom_link = {};
        answer_register_statuses(0, 0);
        brom_link.answers[6] = {le32(1), le16(0)};
        brom_link.answers[7] = {le16(0x40), le16(0)};
        g_download_settings.chip_variant = variant;
        return run([] { return hdl_brom_set_registers(); });
    };
    EXPECT_TRUE(set_registers(2));
    EXPECT_EQ(sent_as_text(), Lines{});
    EXPECT_TRUE(set_registers(0));
    EXPECT_EQ(sent_as_text(), (Lines{"D2", "000008A2", "01000000", "1000"}));
    EXPECT_TRUE(set_registers(1));
    EXPECT_EQ(sent_as_text(),
              (Lines{"D2", "000008A2", "01000000", "1000", "D2", "300008A2", "01000000", "4000"}));
}

TEST_F(Brom, FirstRegisterThatFailsIsTheLast) {
    answer_register_statuses(0, kError);
    EXPECT_FALSE(run([] { return hdl_brom_set_registers(); }));
    EXPECT_EQ(brom_link.sent.size(), 4U);
}

TEST_F(Brom, BaudrateIsSetOnBothSides) {
    for (const bool host_too : {true, false}) {
        fake_clock_start();
        brom_link = {};
        brom_link.answers[1] = {le32(921600), le16(0x0FFF)};
        brom_link.speed_result = host_too;
        EXPECT_EQ(set_baudrate(), host_too);
        EXPECT_EQ(sent_as_text(), (Lines{"DC", "00100E00"}));
        EXPECT_EQ(brom_link.speeds, (std::vector<uint32_t>{921600}));
        EXPECT_EQ(fake_clock.slept, host_too ? (Times{20, 10, 100}) : (Times{20, 10}));
    }
}

TEST_F(Brom, JumpStartsTheAgent) {
    brom_link.answers[1] = {le32(0x4200000), le16(0x0FFF)};
    g_download_settings.high_speed = 1;
    EXPECT_TRUE(jump());
    EXPECT_EQ(sent_as_text(), (Lines{"D5", "00002004"}));
    EXPECT_TRUE(brom_link.speeds.empty());
    EXPECT_EQ(fake_clock.slept, (Times{20, 10}));
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0xD5", "[I] echoU8 receiveChar 0xD5", "[I] echoU32 Send 0x4200000",
                          "[I] Jump to DA OK"}));
}

TEST_F(Brom, AgentsAddressDependsOnVariantAndLink) {
    const auto address = [this](uint32_t variant, uint32_t link) {
        brom_link = {};
        g_download_settings.chip_variant = variant;
        g_download_settings.link_type = link;
        jump();
        return sent_as_text()[1];
    };
    EXPECT_EQ(address(1, HDL_LINK_SPI), "00002004");
    EXPECT_EQ(address(1, HDL_LINK_UART), "04200000");
    EXPECT_EQ(address(1, HDL_LINK_OTHER), "00002004");
    EXPECT_EQ(address(0, HDL_LINK_SPI), "00002004");
    EXPECT_EQ(address(0, HDL_LINK_UART), "04000000");
    EXPECT_EQ(address(0, HDL_LINK_OTHER), "00000004");
    EXPECT_EQ(address(2, HDL_LINK_SPI), "00000004");
    EXPECT_EQ(address(2, HDL_LINK_UART), "04000000");
}

TEST_F(Brom, JumpOnAFastSerialLineGoesBackToItsFirstSpeed) {
    g_download_settings.link_type = HDL_LINK_UART;
    brom_link.answers[1] = {{0x04, 0x20, 0, 0}, {0, 0}};
    EXPECT_TRUE(jump());
    EXPECT_TRUE(brom_link.speeds.empty());

    g_download_settings.high_speed = 1;
    brom_link.answers[3] = brom_link.answers[1];
    EXPECT_TRUE(jump());
    EXPECT_EQ(brom_link.speeds, (std::vector<uint32_t>{115200}));
    EXPECT_EQ(fake_clock.slept.back(), 100);

    brom_link.answers[5] = brom_link.answers[1];
    brom_link.speed_result = false;
    EXPECT_FALSE(jump());
    EXPECT_EQ(last(), "[I] echoU32 Send 0x4200000");
}

TEST_F(Brom, EachStepOfAnOperationCanFail) {
    using Operation = bool (Brom::*)();
    const struct {
        Operation run;
        uint32_t failing_send;                        // or kNever
        std::map<size_t, std::vector<Bytes>> answers; // others than the echoes
        const char* line;
        size_t sent;
    } rows[] = {
        {&Brom::set_register, 0, {}, "set_register echoU8(0xD2) error", 1},
        {&Brom::set_register, 1, {}, "set_register echoU32(0xA2080000) error", 2},
        {&Brom::set_register, 2, {}, "set_register echoU32(0x1) error", 3},
        {&Brom::set_register, kNever, {}, "set_register readU16 error", 3},
        {&Brom::set_register,
         kNever,
         {{2, {le32(1), le16(0x1000)}}},
         "set_register get status error 4096",
         3},
        {&Brom::set_register, 3, {{2, {le32(1), le16(0)}}}, "set_register echoU16(0x10) error", 4},
        {&Brom::set_register, kNever, {{2, {le32(1), le16(0)}}}, "set_register readU16 error", 4},
        {&Brom::set_register,
         kNever,
         {{2, {le32(1), le16(0)}}, {3, {le16(0x10), le16(kError)}}},
         "set_register get status error 7425",
         4},
        {&Brom::set_baudrate, 0, {}, "set_baudrate echoU8(0xDC) error", 1},
        {&Brom::set_baudrate, 1, {}, "set_baudrate echoU32(0xe1000) error", 2},
        {&Brom::set_baudrate, kNever, {}, "set_baudrate readU16 error 0", 2},
        {&Brom::set_baudrate,
         kNever,
         {{1, {le32(921600), le16(0x1000)}}},
         "set_baudrate get status error 4096",
         2},
        {&Brom::jump, 0, {}, "jump_da echoU8(0xD5) error", 1},
        {&Brom::jump, 1, {}, "jump_da echoU32(0x4200000) error", 2},
        {&Brom::jump, kNever, {}, "jump_da readU16 error", 2},
        {&Brom::jump, kNever, {{1, {le32(0x4200000), le16(kError)}}}, "jump_da get status error 7425", 2},
    };
    for (const auto& row : rows) {
        brom_link = {};
        brom_link.failing_send = row.failing_send;
        brom_link.answers = row.answers;
        EXPECT_FALSE((this->*row.run)()) << row.line;
        EXPECT_EQ(last(), string("[E] hdl_brom_") + row.line);
        EXPECT_EQ(brom_link.sent.size(), row.sent) << row.line;
        EXPECT_TRUE(brom_link.speeds.empty());
    }
}

TEST(BromChecksum, IsTheXorOfLittleEndianWords) {
    const Bytes bytes = {1, 2, 3};
    EXPECT_EQ(bromChecksum(bytes.data(), 3), 0x0202);
    EXPECT_EQ(bromChecksum(bytes.data(), 2), 0x0201);
    EXPECT_EQ(bromChecksum(bytes.data(), 1), 0x0001);
    const Bytes more = {0xFF, 0x00, 0x0F, 0xF0, 0x00, 0x80};
    EXPECT_EQ(bromChecksum(more.data(), 6), 0x70F0);
    EXPECT_EQ(bromChecksum(nullptr, 4), 0);
    EXPECT_EQ(bromChecksum(more.data(), 0), 0);
}
