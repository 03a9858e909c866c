#include "download/hdl_settings.h"
#include "hdl_da_fixture.h"

extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return g_fakes.calloc_fails ? nullptr : __real_calloc(count, size);
}

namespace {

using Parser = Agent;
using Receiver = Agent;

} // namespace

TEST_F(Parser, FindsAFrameAndLeavesIt) {
    pool_holds(kDone);
    EXPECT_EQ(parsing_kite(), 11U);
    EXPECT_EQ(pool(), kDone);
}

TEST_F(Parser, DropsNoiseBeforeAFrame) {
    pool_holds(Bytes{0x05, 0x05, '(', 7, '[', 0x05} + kDone);
    EXPECT_EQ(parsing_kite(), 11U);
    EXPECT_EQ(pool(), kDone);
}

TEST_F(Parser, KeepsFiveBytesOfNoise) {
    pool_holds(Bytes(16000, 7));
    EXPECT_EQ(parsing_kite(), 0U);
    EXPECT_EQ(pool(), Bytes(5, 7));
}

TEST_F(Parser, WaitsForTheWholeFrame) {
    for (size_t n = 0; n < kDone.size(); ++n) {
        const Bytes part(kDone.begin(), kDone.begin() + static_cast<ptrdiff_t>(n));
        pool_holds(part);
        EXPECT_EQ(parsing_kite(), 0U) << n;
        EXPECT_EQ(pool(), part) << n;
    }
}

TEST_F(Parser, AnImpossibleLengthCostsTwoBytesAndTheCall) {
    pool_holds(raw_frame('[', 0x1100, kDone));
    EXPECT_EQ(parsing_kite(), 0U);
    EXPECT_EQ(pool(), le16(0x1100) + kDone);
    EXPECT_EQ(parsing_kite(), 11U);
    EXPECT_EQ(pool(), kDone);
}

TEST_F(Parser, TheLongestFrameIsFourThousandOneHundredAndTwelveBytes) {
    pool_holds(raw_frame('[', 4108, Bytes(4108)));
    EXPECT_EQ(parsing_kite(), 4112U);
    pool_holds(raw_frame('[', 4109, Bytes(4109)));
    EXPECT_EQ(parsing_kite(), 0U);
    EXPECT_EQ(pool().size(), 4111U);
}

TEST_F(Parser, AnotherNotificationIsAFrame) {
    const Bytes frame = raw_frame(']', 3, le16(0x0F11) + Bytes{0});
    pool_holds(frame);
    EXPECT_EQ(parsing_kite(), 7U);
    EXPECT_EQ(pool(), frame);
}

TEST_F(Parser, FramesTooShortForAnIdentifierAreFrames) {
    pool_holds(raw_frame(']', 0, le16(0x0F10)));
    EXPECT_EQ(parsing_kite(), 4U);
    pool_holds(raw_frame(']', 1, le16(0x0F10)));
    EXPECT_EQ(parsing_kite(), 5U);
    EXPECT_EQ(g_fakes.log, Texts{});
}

TEST_F(Parser, ALogIsPrintedAndDropped) {
    pool_holds(agent_log("twelve bytes") + Bytes{1, 2, 3});
    EXPECT_EQ(parsing_kite(), 0U);
    EXPECT_EQ(g_fakes.log, Texts{"[I] [DA Log] twelve bytes\n"});
    EXPECT_EQ(pool(), (Bytes{1, 2, 3}));
}

TEST_F(Parser, TheLongestLogIsPrintedWhole) {
    pool_holds(agent_log(std::string(4100, 'x')));
    EXPECT_EQ(parsing_kite(), 0U);
    EXPECT_EQ(g_fakes.log, Texts{"[I] [DA Log] " + std::string(4100, 'x') + "\n"});
}

TEST_F(Parser, ALogsTextEndsAtANulAndIsNoFormat) {
    pool_holds(agent_log(std::string("100%s %n\0hidden", 15)));
    EXPECT_EQ(parsing_kite(), 0U);
    EXPECT_EQ(g_fakes.log, Texts{"[I] [DA Log] 100%s %n\n"});
    EXPECT_EQ(pool(), Bytes{});
}

TEST_F(Parser, ALogTooShortForATextIsAnEmptyOne) {
    for (uint16_t length = 2; length <= 8; ++length) {
        hdl_fakes_reset();
        pool_holds(raw_frame(']', length, le16(0x0F10) + Bytes(length - 2U, 'x')) + Bytes{9});
        EXPECT_EQ(parsing_kite(), 0U) << length;
        EXPECT_EQ(g_fakes.log, Texts{"[I] [DA Log] \n"}) << length;
        EXPECT_EQ(pool(), Bytes{9}) << length;
    }
}

TEST_F(Parser, ALogWithoutMemoryStays) {
    pool_holds(agent_log("text"));
    g_fakes.calloc_fails = true;
    EXPECT_EQ(parsing_kite(), 0U);
    g_fakes.calloc_fails = false;
    EXPECT_EQ(g_fakes.log, Texts{"[E] parsing_kite malloc con fail\n"});
    EXPECT_EQ(pool(), agent_log("text"));
}

TEST_F(Receiver, RefusesToExpectMoreThanAFrame) {
    uint32_t size = 7;
    EXPECT_FALSE(read_dma_to_pool(4113, &size));
    EXPECT_EQ(g_fakes.calls, Texts{});
    EXPECT_EQ(size, 7U);
}

TEST_F(Receiver, AsksAnSpiLinkForWhatIsExpected) {
    arrive(kDone);
    uint32_t size = 0;
    EXPECT_TRUE(read_dma_to_pool(11, &size));
    EXPECT_EQ(g_fakes.calls, Texts{"receive 11"});
    EXPECT_EQ(size, 11U);
    EXPECT_EQ(pool(), kDone);
}

TEST_F(Receiver, AsksOtherLinksForTheLongestFrame) {
    for (const uint32_t link : {HDL_LINK_UART, HDL_LINK_OTHER}) {
        hdl_fakes_reset();
        g_download_settings.link_type = link;
        arrive(kDone);
        uint32_t size = 0;
        EXPECT_TRUE(read_dma_to_pool(11, &size));
        EXPECT_EQ(g_fakes.calls, Texts{"receive 4112"});
    }
}

TEST_F(Receiver, GivesUpAfterASecond) {
    g_fakes.receive_ms = 1;
    const int64_t start = g_fakes.now;
    uint32_t size = 7;
    EXPECT_FALSE(read_dma_to_pool(11, &size));
    EXPECT_EQ(g_fakes.now - start, 1000);
    EXPECT_EQ(g_fakes.calls.size(), 1000U);
    EXPECT_EQ(size, 7U);
}

TEST_F(Receiver, AClockThatIsSetBackDoesNotHoldItForLong) {
    g_fakes.receive_ms = 100;
    const int64_t start = g_fakes.now;
    int calls = 0;
    g_fakes.on_receive = [&] { g_fakes.now -= ++calls == 5 ? 3'600'000 : 0; };
    uint32_t size = 0;
    EXPECT_FALSE(read_dma_to_pool(11, &size));
    EXPECT_EQ(g_fakes.now - start, 500 - 3'600'000 + 1000);
}

TEST_F(Receiver, ALinkThatFailsAtOnceIsAskedOnceAMillisecond) {
    g_fakes.receive_ms = 0;
    int rounds = 0;
    g_fakes.on_receive = [&] { g_fakes.now += ++rounds > 5000 ? 1000 : 0; };
    uint32_t size = 0;
    EXPECT_FALSE(read_dma_to_pool(11, &size));
    EXPECT_EQ(rounds, 1000);
    EXPECT_EQ(Texts(g_fakes.calls.begin(), g_fakes.calls.begin() + 4),
              (Texts{"receive 11", "sleep 1", "receive 11", "sleep 1"}));
}

TEST_F(Receiver, ALinkThatTakesItsTimeIsAskedAgainAtOnce) {
    g_fakes.receive_ms = 1;
    uint32_t size = 0;
    EXPECT_FALSE(read_dma_to_pool(11, &size));
    EXPECT_EQ(g_fakes.calls, Texts(1000, "receive 11"));
}

TEST_F(Receiver, JoinsPieces) {
    arrive(Bytes(kDone.begin(), kDone.begin() + 5));
    arrive(Bytes(kDone.begin() + 5, kDone.end()));
    uint32_t size = 0;
    EXPECT_TRUE(read_dma_to_pool(11, &size));
    EXPECT_EQ(size, 11U);
}

TEST_F(Receiver, LooksAtThePoolWhenNothingArrives) {
    pool_holds(kDone);
    uint32_t size = 0;
    EXPECT_TRUE(read_dma_to_pool(11, &size));
    EXPECT_EQ(size, 11U);
    EXPECT_EQ(g_fakes.calls, Texts{"receive 11"});
}

TEST_F(Receiver, SkipsAnImpossibleLengthInOneWait) {
    pool_holds(raw_frame('[', 0x1100, kDone));
    uint32_t size = 0;
    EXPECT_TRUE(read_dma_to_pool(11, &size));
    EXPECT_EQ(pool(), kDone);
}

TEST_F(Receiver, EmptiesAPoolThatWouldFill) {
    pool_holds(Bytes(16440, 7));
    arrive(Bytes(8, 7));
    arrive(kDone);
    uint32_t size = 0;
    EXPECT_TRUE(read_dma_to_pool(4112, &size));
    EXPECT_EQ(g_fakes.log, Texts{"[E] read_dma_to_pool overflow, need to clear rx pool!\n"});
    EXPECT_EQ(pool(), kDone);
}

TEST_F(Receiver, KeepsAPoolThatStaysBelowItsSize) {
    pool_holds(Bytes(16440, 7));
    arrive(Bytes(7, 7));
    uint32_t size = 0;
    EXPECT_FALSE(read_dma_to_pool(4112, &size));
    EXPECT_EQ(g_fakes.log, Texts{});
    EXPECT_EQ(pool(), Bytes(5, 7));
}

TEST_F(Receiver, AFrameThatNeverCompletesEndsInTime) {
    arrive(raw_frame('[', 4108, le16(kFormat)));
    g_fakes.on_receive = [] { g_fakes.now += 50; };
    g_fakes.receive_ms = 0;
    const int64_t start = g_fakes.now;
    EXPECT_EQ(wait(), 1U);
    EXPECT_EQ(g_fakes.now - start, 1000);
    EXPECT_EQ(pool().size(), 6U);
}
