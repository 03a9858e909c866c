#include "download/hdl_settings.h"
#include "hdl_da_fixture.h"
#include "support/call_fault.h"

namespace {

using Parser = Agent;
struct Receiver : Agent {
    bool receive(uint32_t expected) {
        return read_dma_to_pool(expected, &size);
    }
    uint32_t size = 7;
};

} // namespace

TEST_F(Parser, TakesFramesOutOfWhateverThePoolHolds) {
    const Bytes longest = raw_frame('[', 4108, Bytes(4108));
    const Bytes other_notice = raw_frame(']', 3, le16(0x0F11) + Bytes{0});
    const Bytes answer_like_a_log = raw_frame('[', 2, le16(0x0F10));
    const Bytes no_id = raw_frame(']', 0, le16(0x0F10));
    const Bytes half_an_id = raw_frame(']', 1, le16(0x0F10));
    const struct {
        const char* what;
        Bytes held;
        uint32_t frame; // bytes
        Bytes left;
        Texts log;
    } rows[] = {
        {"a frame is left", kDone, 11, kDone, {}},
        {"noise is dropped", Bytes{0x05, 0x05, '(', 7, '[', 0x05} + kDone, 11, kDone, {}},
        {"but for five bytes", Bytes(16000, 7), 0, Bytes(5, 7), {}},
        {"which are not looked at", {9, 9, 0x05, '[', 3, 0}, 0, {9, 0x05, '[', 3, 0}, {}},
        {"not for a frame without an identifier", {0x05, '[', 0, 0, 1}, 0, {0x05, '[', 0, 0, 1}, {}},
        {"nor for an impossible length", {0x05, '[', 0, 0x11, 1}, 0, {0x05, '[', 0, 0x11, 1}, {}},
        {"an impossible length costs two bytes", raw_frame('[', 0x1100, kDone), 0, le16(0x1100) + kDone, {}},
        {"so does the greatest", raw_frame('[', 0xFFFF, kDone), 0, le16(0xFFFF) + kDone, {}},
        {"the longest frame", longest, 4112, longest, {}},
        {"one byte more", raw_frame('[', 4109, Bytes(4109)), 0, le16(4109) + Bytes(4109), {}},
        {"another notification", other_notice, 7, other_notice, {}},
        {"a response with the log's identifier", answer_like_a_log, 6, answer_like_a_log, {}},
        {"a frame without an identifier", no_id, 4, no_id, {}},
        {"a frame with half of one", half_an_id, 5, half_an_id, {}},
        {"a log", agent_log("twelve bytes") + Bytes{1, 2, 3}, 0, {1, 2, 3}, {"[I] [DA Log] twelve bytes\n"}},
        {"the longest log",
         agent_log(std::string(4100, 'x')),
         0,
         {},
         {"[I] [DA Log] " + std::string(4100, 'x') + "\n"}},
        {"a log ends at a NUL and is no format",
         agent_log(std::string("100%s %n\0hidden", 15)),
         0,
         {},
         {"[I] [DA Log] 100%s %n\n"}},
    };
    for (const auto& row : rows) {
        hdl_fakes_reset();
        pool_holds(row.held);
        EXPECT_EQ(parsing_kite(), row.frame) << row.what;
        EXPECT_EQ(pool(), row.left) << row.what;
        EXPECT_EQ(g_fakes.log, row.log) << row.what;
    }
}

TEST_F(Parser, WaitsForTheWholeFrame) {
    for (size_t n = 0; n < kDone.size(); ++n) {
        const Bytes part(kDone.begin(), kDone.begin() + static_cast<ptrdiff_t>(n));
        pool_holds(part);
        EXPECT_EQ(parsing_kite(), 0U) << n;
        EXPECT_EQ(pool(), part) << n;
    }
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
    call_faults.calloc = kEachCall;
    EXPECT_EQ(parsing_kite(), 0U);
    call_faults = {};
    EXPECT_EQ(g_fakes.log, Texts{"[E] parsing_kite malloc con fail\n"});
    EXPECT_EQ(pool(), agent_log("text"));
}

TEST_F(Receiver, RefusesToExpectMoreThanAFrame) {
    EXPECT_FALSE(receive(4113));
    EXPECT_EQ(g_fakes.calls, Texts{});
    EXPECT_EQ(size, 7U);
}

TEST_F(Receiver, AsksAnSpiLinkForWhatIsExpectedAndOthersForTheLongestFrame) {
    for (const uint32_t link : {HDL_LINK_SPI, HDL_LINK_UART, HDL_LINK_OTHER}) {
        hdl_fakes_reset();
        g_download_settings.link_type = link;
        arrive(kDone);
        EXPECT_TRUE(receive(11));
        EXPECT_EQ(g_fakes.calls, Texts{link == HDL_LINK_SPI ? "receive 11" : "receive 4112"});
        EXPECT_EQ(size, 11U);
        EXPECT_EQ(pool(), kDone);
    }
}

TEST_F(Receiver, GivesUpAfterASecondInWhichItAsksAgainAtOnce) {
    g_fakes.receive_ms = 1;
    const int64_t start = g_fakes.now;
    EXPECT_FALSE(receive(11));
    EXPECT_EQ(g_fakes.now - start, 1000);
    EXPECT_EQ(g_fakes.calls, Texts(1000, "receive 11"));
    EXPECT_EQ(size, 7U);
}

TEST_F(Receiver, WaitsAsLongWhenTheClockIsSet) {
    for (const int64_t step_ms : {-3'600'000, 3'600'000}) {
        hdl_fakes_reset();
        g_fakes.receive_ms = 100;
        const int64_t start = g_fakes.now;
        g_fakes.on_receive = [step_ms, calls = 0]() mutable { g_fakes.set += ++calls == 5 ? step_ms : 0; };
        EXPECT_FALSE(receive(11));
        EXPECT_EQ(g_fakes.now - start, 1000) << step_ms;
    }
}

TEST_F(Receiver, ALinkThatFailsAtOnceIsAskedOnceAMillisecond) {
    g_fakes.receive_ms = 0;
    int rounds = 0;
    g_fakes.on_receive = [&] { g_fakes.now += ++rounds > 5000 ? 1000 : 0; };
    EXPECT_FALSE(receive(11));
    EXPECT_EQ(rounds, 1000);
    EXPECT_EQ(Texts(g_fakes.calls.begin(), g_fakes.calls.begin() + 4),
              (Texts{"receive 11", "sleep 1", "receive 11", "sleep 1"}));
}

TEST_F(Receiver, LooksForAFrameBehindEachReceive) {
    const Bytes first(kDone.begin(), kDone.begin() + 5);
    const Bytes rest(kDone.begin() + 5, kDone.end());
    const struct {
        const char* what;
        Bytes held;
        std::deque<Bytes> arrives;
    } rows[] = {
        {"pieces are joined", {}, {first, rest}},
        {"the pool is looked at when nothing arrives", kDone, {}},
        {"an impossible length costs no other wait", raw_frame('[', 0x1100, kDone), {}},
    };
    for (const auto& row : rows) {
        pool_holds(row.held);
        g_fakes.arrives = row.arrives;
        EXPECT_TRUE(receive(11)) << row.what;
        EXPECT_EQ(size, 11U) << row.what;
        EXPECT_EQ(pool(), kDone) << row.what;
    }
}

TEST_F(Receiver, EmptiesAPoolThatWouldFill) {
    pool_holds(Bytes(16440, 7));
    arrive(Bytes(8, 7));
    arrive(kDone);
    EXPECT_TRUE(receive(4112));
    EXPECT_EQ(g_fakes.log, Texts{"[E] read_dma_to_pool overflow, need to clear rx pool!\n"});
    EXPECT_EQ(pool(), kDone);

    hdl_fakes_reset();
    pool_holds(Bytes(16440, 7));
    arrive(Bytes(7, 7));
    EXPECT_FALSE(receive(4112));
    EXPECT_EQ(g_fakes.log, Texts{}) << "it stays below its size";
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
