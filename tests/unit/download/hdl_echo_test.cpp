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

TEST_F(Echo, ReadU16PollsEvery20Ms) {
    brom_link.arriving = {{}, {}, {}, {0x12, 0x34}};
    uint16_t value = 0;
    EXPECT_TRUE(readU16(&value));
    EXPECT_EQ(value, 0x3412);
    EXPECT_EQ(fake_clock.slept, (Times{20, 20, 20}));
}

TEST_F(Echo, ReadU16GivesUpPastOneSecond) {
    uint16_t value = 7;
    EXPECT_FALSE(readU16(&value));
    EXPECT_EQ(value, 7);
    EXPECT_EQ(fake_clock_slept(), 1020); // at 1000 ms it has not passed yet
    EXPECT_EQ(brom_link.asked.size(), 52U);
}

TEST_F(Echo, ReadU16GivesUpOneMillisecondPastOneSecond) {
    brom_link.at_receive = [] { fake_clock.now_ms += brom_link.asked.size() == 51 ? 1 : 0; };
    uint16_t value = 0;
    EXPECT_FALSE(readU16(&value));
    EXPECT_EQ(fake_clock_slept(), 1000);
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

TEST_F(Echo, ByteComesBackAtOnce) {
    EXPECT_TRUE(run([] { return echoU8(0xA0, 0xA0); }));
    EXPECT_EQ(sent_as_text(), (Lines{"A0"}));
    EXPECT_EQ(fake_clock.slept, (Times{20, 10}));
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0xA0", "[I] echoU8 receiveChar 0xA0"}));
}

TEST_F(Echo, ByteComesBackLate) {
    brom_link.answers[0] = {{}, {0x5F}};
    EXPECT_TRUE(run([] { return echoU8(0xA0, 0x5F); }));
    EXPECT_EQ(fake_clock.slept, (Times{20, 20}));
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0xA0", "[I] echoU8 receiveChar 0x5F"}));
}

TEST_F(Echo, ByteNeverComesBack) {
    brom_link.silent = true;
    EXPECT_FALSE(run([] { return echoU8(0xA0, 0x5F); }));
    EXPECT_EQ(fake_clock.slept, (Times{20, 20}));
    EXPECT_EQ(brom_link.asked, (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0xA0"}));
}

TEST_F(Echo, WrongByteIsLoggedAsTheExpectedOne) {
    brom_link.answers[0] = {{0x11}};
    EXPECT_FALSE(run([] { return echoU8(0x5, 0xFA); }));
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0x5", "[I] echoU8 receiveChar 0xFA"}));
}

TEST_F(Echo, ByteThatCantBeSentIsNotAwaited) {
    brom_link.failing_send = 0;
    EXPECT_FALSE(run([] { return echoU8(0xA0, 0xA0); }));
    EXPECT_TRUE(brom_link.asked.empty());
    EXPECT_TRUE(fake_clock.slept.empty());
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0xA0"}));
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

TEST_F(Echo, ExpectationMayDifferFromWhatIsSent) {
    brom_link.answers[0] = {word16(0x55)};
    brom_link.answers[1] = {word32(0x66)};
    EXPECT_TRUE(run([] { return echoU16(1, 0x55) && echoU32(2, 0x66); }));
}

TEST_F(Echo, WrongHalfWordFailsSilently) {
    brom_link.answers[0] = {word16(0x1235)};
    EXPECT_FALSE(run([] { return echoU16(0x1234, 0x1234); }));
    EXPECT_EQ(log, (Lines{"[I] echoU16 Send 0x1234"}));
}

TEST_F(Echo, WrongWordIsLogged) {
    brom_link.answers[0] = {word32(0xABC)};
    EXPECT_FALSE(run([] { return echoU32(0x123, 0x123); }));
    EXPECT_EQ(log,
              (Lines{"[I] echoU32 Send 0x123", "[E] echoU32 want receiveChar 0x1238,  receiveChar 0xABC8"}));
}

TEST_F(Echo, MissingWordsFail) {
    brom_link.silent = true;
    EXPECT_FALSE(run([] { return echoU16(1, 1); }));
    EXPECT_EQ(log, (Lines{"[I] echoU16 Send 0x1"}));
    EXPECT_FALSE(run([] { return echoU32(1, 1); }));
    EXPECT_EQ(log, (Lines{"[I] echoU32 Send 0x1"}));
}

TEST_F(Echo, WordsThatCantBeSentAreNotAwaited) {
    brom_link.failing_send = 0;
    EXPECT_FALSE(run([] { return echoU16(1, 1); }));
    brom_link.failing_send = 1;
    EXPECT_FALSE(run([] { return echoU32(1, 1); }));
    EXPECT_TRUE(brom_link.asked.empty());
}
