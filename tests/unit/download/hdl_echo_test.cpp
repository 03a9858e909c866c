#include "download/hdl_echo.h"

#include "brom_link.h"
#include "download/hdl_settings.h"
#include "support/fake_clock.h"

namespace {

struct Echo : BromTest {};

void use_link(uint32_t type) {
    g_download_settings.link_type = type;
}

} // namespace

TEST_F(Echo, ReadWordsFollowTheOrderOfTheLink) {
    for (const uint32_t link : {HDL_LINK_UART, HDL_LINK_SPI, HDL_LINK_OTHER}) {
        use_link(link);
        brom_link.arriving = {{0x12, 0x34}, {0x56, 0x78, 0x9A, 0xBC}};
        uint16_t half = 0;
        uint32_t whole = 0;
        EXPECT_TRUE(readU16(&half));
        EXPECT_TRUE(readU32(&whole));
        EXPECT_EQ(half, link == HDL_LINK_UART ? 0x1234U : 0x3412U);
        EXPECT_EQ(whole, link == HDL_LINK_UART ? 0x56789ABCU : 0xBC9A7856U);
    }
    EXPECT_TRUE(fake_clock.slept.empty());
    EXPECT_EQ(brom_link.asked, (std::vector<uint32_t>{2, 4, 2, 4, 2, 4}));
}

TEST_F(Echo, ReadU16PollsEvery20MsForJustOverASecond) {
    brom_link.arriving = {{}, {}, {}, {0x12, 0x34}};
    uint16_t value = 0;
    EXPECT_TRUE(readU16(&value));
    EXPECT_EQ(value, 0x3412);
    EXPECT_EQ(fake_clock.slept, (Times{20, 20, 20}));
    for (const bool late : {false, true}) { // by a millisecond, at 1000 ms
        fake_clock_start();
        brom_link = {};
        brom_link.at_receive = [late] { fake_clock.now_ms += late && brom_link.asked.size() == 51 ? 1 : 0; };
        EXPECT_FALSE(readU16(&value));
        EXPECT_EQ(value, 0x3412);
        EXPECT_EQ(fake_clock_slept(), late ? 1000 : 1020);
        EXPECT_EQ(brom_link.asked.size(), late ? 51U : 52U);
    }
}

TEST_F(Echo, ReadU32TriesTwice) {
    brom_link.arriving = {{}, {1, 2, 3, 4}};
    uint32_t value = 0;
    EXPECT_TRUE(readU32(&value));
    EXPECT_EQ(value, 0x04030201U);
    EXPECT_EQ(fake_clock.slept, (Times{20}));
    EXPECT_FALSE(readU32(&value));
    EXPECT_EQ(value, 0x04030201U);
    EXPECT_EQ(fake_clock.slept, (Times{20, 20}));
    EXPECT_EQ(brom_link.asked.size(), 4U);
}

TEST_F(Echo, ShortWordIsFilledUpWithZeros) {
    brom_link.arriving = {{0x12}, {0x34, 0x56}};
    uint16_t half = 0xFFFF;
    uint32_t whole = 0xFFFFFFFF;
    EXPECT_TRUE(readU16(&half));
    EXPECT_TRUE(readU32(&whole));
    EXPECT_EQ(half, 0x12);
    EXPECT_EQ(whole, 0x5634U);
}

TEST_F(Echo, ByteIsAwaitedTwice) {
    const struct {
        const char* what;
        std::vector<Bytes> answer; // to 0xA0; 0x5F is awaited
        Times slept;
        bool logged;
    } rows[] = {
        {"at once", {{0x5F}}, {20, 10}, true},
        {"late", {{}, {0x5F}}, {20, 20}, true},
        {"never", {}, {20, 20}, false},
        {"another, which is logged as the expected one", {{0x11}}, {20, 10}, true},
    };
    for (const auto& row : rows) {
        fake_clock_start();
        brom_link = {};
        brom_link.answers[0] = row.answer;
        const bool good = !row.answer.empty() && row.answer.back() == Bytes{0x5F};
        EXPECT_EQ(run([] { return echoU8(0xA0, 0x5F); }), good) << row.what;
        EXPECT_EQ(sent_as_text(), Lines{"A0"});
        EXPECT_EQ(fake_clock.slept, row.slept) << row.what;
        EXPECT_EQ(log, row.logged ? (Lines{"[I] echoU8 Send 0xA0", "[I] echoU8 receiveChar 0x5F"})
                                  : (Lines{"[I] echoU8 Send 0xA0"}))
            << row.what;
    }
}

TEST_F(Echo, WhatCantBeSentIsNotAwaited) {
    const std::pair<std::function<bool()>, const char*> echoes[] = {
        {[] { return echoU8(1, 1); }, "[I] echoU8 Send 0x1"},
        {[] { return echoU16(1, 1); }, "[I] echoU16 Send 0x1"},
        {[] { return echoU32(1, 1); }, "[I] echoU32 Send 0x1"},
    };
    for (const auto& [echo, line] : echoes) {
        brom_link = {};
        brom_link.failing_send = 0;
        EXPECT_FALSE(run(echo));
        EXPECT_TRUE(brom_link.asked.empty());
        EXPECT_TRUE(fake_clock.slept.empty());
        EXPECT_EQ(log, Lines{line});
    }
}

TEST_F(Echo, WordsTravelInTheOrderOfTheLink) {
    for (const uint32_t link : {HDL_LINK_UART, HDL_LINK_SPI, HDL_LINK_OTHER}) {
        use_link(link);
        brom_link.sent.clear();
        EXPECT_TRUE(run([] { return echoU16(0x1234, 0x1234) && echoU32(0x56789ABC, 0x56789ABC); }));
        EXPECT_EQ(sent_as_text(),
                  link == HDL_LINK_UART ? (Lines{"1234", "56789ABC"}) : (Lines{"3412", "BC9A7856"}));
        EXPECT_EQ(log, (Lines{"[I] echoU16 Send 0x1234", "[I] echoU32 Send 0x56789ABC"}));
    }
}

TEST_F(Echo, WordsAreComparedWithWhatIsExpected) {
    const struct {
        std::function<bool()> echo;
        std::vector<Bytes> answer;
        bool result;
        Lines log;
    } rows[] = {
        {[] { return echoU16(1, 0x55); }, {le16(0x55)}, true, {"[I] echoU16 Send 0x1"}},
        {[] { return echoU32(2, 0x66); }, {le32(0x66)}, true, {"[I] echoU32 Send 0x2"}},
        {[] { return echoU16(0x1234, 0x1234); }, {le16(0x1235)}, false, {"[I] echoU16 Send 0x1234"}},
        {[] { return echoU32(0x123, 0x123); },
         {le32(0xABC)},
         false,
         {"[I] echoU32 Send 0x123", "[E] echoU32 want receiveChar 0x1238,  receiveChar 0xABC8"}},
        {[] { return echoU16(1, 1); }, {}, false, {"[I] echoU16 Send 0x1"}},
        {[] { return echoU32(1, 1); }, {}, false, {"[I] echoU32 Send 0x1"}},
    };
    for (const auto& row : rows) {
        brom_link = {};
        brom_link.answers[0] = row.answer;
        EXPECT_EQ(run(row.echo), row.result) << row.log[0];
        EXPECT_EQ(log, row.log);
    }
}
