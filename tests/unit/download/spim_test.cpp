#include "download/spim.h"

#include "spim_slave.h"
#include "support/fake_clock.h"

#include <numeric>
#include <string>
#include <vector>

namespace {

using std::string;

const string kQueryFailed = "[E] [SPIM] SPI master query status of slaver failed";
const string kPollFailed = "[E] SPI master query status of slaver failed";
const string kPollTimeout = "[E] SPI master query status of slaver failed(timeout)";
const string kNobody = "[E] [SPIM] Error Status=0xff , counter=";

using Spim = SpimTest;

Bytes bytes_from(uint8_t first, size_t n) {
    Bytes bytes(n);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

std::function<bool(const Bytes&)> frames_fail(uint8_t opcode) {
    return [opcode](const Bytes& frame) { return frame[0] == opcode; };
}

Lines cleared(const string& bits) {
    return {"08 " + bits, "0C", "0E"};
}

} // namespace

TEST_F(Spim, OpensTheConfiguredDeviceInMode0) {
    for (const uint32_t order : {0U, 1U, 2U}) {
        EXPECT_EQ(start(order), 1);
        ASSERT_EQ(spim_slave.opened.size(), 1U);
        const location_spi_config& config = spim_slave.opened[0];
        EXPECT_EQ(config.mode, 0U);
        EXPECT_EQ(config.lsb_first, order == 0 ? 1 : 0) << order;
        EXPECT_EQ(config.bits_per_word, 8);
        EXPECT_EQ(config.max_speed_hz, 5000000U);
        EXPECT_STREQ(config.path, "/dev/spidev0.0");
    }
    const string longest(127, 'x');
    spim_slave.port.path = longest.c_str();
    spim_close();
    EXPECT_EQ(spim_open(spim_slave.port), 1);
    EXPECT_EQ(spim_slave.opened.back().path, longest);
}

TEST_F(Spim, ClosesOnceWhatWasOpened) {
    EXPECT_EQ(spim_close(), 1);
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_slave.closed, (std::vector<int32_t>{7}));

    spim_slave.open_result = -1;
    EXPECT_EQ(spim_open(spim_slave.port), 0);
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_slave.closed.size(), 1U) << "a failed open leaves nothing to close";

    start();
    spim_slave.close_result = -1;
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_slave.closed.size(), 1U) << "a failed close is not repeated";
}

TEST_F(Spim, FrameIsAsLongAsTheLongerSide) {
    uint8_t tx[4] = {0x06, 1, 2, 3};
    uint8_t rx[4] = {};
    spim_transfer longer_tx = {tx, 4, nullptr, 0};
    EXPECT_EQ(spim_transfer_full(&longer_tx), 0);
    tx[0] = 0x81;
    spim_transfer longer_rx = {tx, 1, rx, 4};
    EXPECT_EQ(spim_transfer_full(&longer_rx), 0);
    EXPECT_EQ(frames_as_text(), (Lines{"06 01 02 03", "81 01 02 03"}));
}

TEST_F(Spim, FrameThatFailsOrMovesNothingIsTold) {
    start(1);
    spim_slave.fails = [](const Bytes&) { return true; };
    for (const int32_t result : {-1, 0}) {
        spim_slave.failed_result = result;
        uint8_t tx[2] = {0x81};
        uint8_t rx[2] = {0x01, 0x01};
        spim_transfer transfer = {tx, 1, rx, 2};
        EXPECT_EQ(spim_transfer_full(&transfer), -1);
        EXPECT_EQ(Bytes(rx, rx + 2), (Bytes{0x01, 0x01})) << "no bits were turned";
    }
}

TEST_F(Spim, OnlyBitOrder1TurnsTheBitsInTheSendersBuffer) {
    for (const uint32_t order : {0U, 1U, 2U}) {
        start(order);
        uint8_t tx[5] = {0x06, 0x01, 0x80, 0xF0, 0x12};
        spim_transfer transfer = {tx, 5, nullptr, 0};
        EXPECT_EQ(spim_transfer_full(&transfer), 0);
        EXPECT_EQ(Bytes(tx, tx + 5),
                  order == 1 ? (Bytes{0x60, 0x80, 0x01, 0x0F, 0x48}) : (Bytes{0x06, 0x01, 0x80, 0xF0, 0x12}));
        EXPECT_EQ(frames_as_text(), (Lines{"06 01 80 F0 12"}));
    }
}

TEST_F(Spim, StatusIsTheSecondByte) {
    uint8_t status = 0;
    for (const uint32_t order : {0U, 1U}) {
        start(order);
        spim_slave.statuses = {0x25};
        run([&] { spim_read_status(&status); });
        EXPECT_EQ(status, 0x25);
        EXPECT_EQ(log, Lines{});
    }
    spim_slave.statuses = {kFails};
    run([&] { spim_read_status(&status); });
    EXPECT_EQ(status, 0x25) << "kept";
    EXPECT_EQ(log, (Lines{kQueryFailed}));
}

TEST_F(Spim, WaitEndsWithItsBitsItsTriesOrAnError) {
    enum { kReached, kTriesUsed, kCleared, kFault };
    const struct {
        const char* what;
        std::deque<int> statuses; // for 0x24
        uint32_t tries;
        int32_t result;
        Lines frames;
        Lines log;
    } rows[] = {
        {"all bits are set", {0x00, 0x04, 0x20, 0x25}, 10, kReached, {}, {}},
        {"at the last try", {1, 1, 0x24}, 3, kReached, {}, {}},
        {"not at all", {1, 0x04, 0x20}, 3, kTriesUsed, {}, {}},
        {"nobody is no success", {0xFF, 0xFF}, 2, kTriesUsed, {}, {kNobody + "0", kNobody + "1"}},
        {"but may come", {0xFF, 0x24}, 2, kReached, {}, {kNobody + "0"}},
        {"a status that can't be read", {kFails, kFails}, 2, kTriesUsed, {}, {kQueryFailed}},
        {"counts as the last one",
         {0xFF, kFails},
         2,
         kTriesUsed,
         {},
         {kNobody + "0", kQueryFailed, kNobody + "1"}},
        {"a fault", {0x80}, 5, kFault, {}, {}},
        {"a fault with the bits", {0xA4}, 5, kFault, {}, {}},
        {"a fault with all others", {0xE7}, 5, kFault, {}, {}},
        {"an error", {0x08}, 5, kCleared, cleared("08"), {}},
        {"the other one", {0x10}, 5, kCleared, cleared("10"), {}},
        {"both", {0x1C}, 5, kCleared, cleared("18"), {}},
        {"with a fault", {0x98}, 5, kCleared, cleared("18"), {}},
        {"with the bits", {0x3F}, 5, kCleared, cleared("18"), {}},
    };
    for (const auto& row : rows) {
        start();
        spim_slave.statuses = row.statuses;
        int32_t result = 99;
        run([&] { result = spim_wait_status(0x24, row.tries, 3); });
        EXPECT_EQ(result, row.result) << row.what;
        EXPECT_TRUE(spim_slave.statuses.empty()) << row.what;
        EXPECT_EQ(frames_as_text(), row.frames) << row.what;
        EXPECT_EQ(log, row.log) << row.what;
        EXPECT_TRUE(row.result > kTriesUsed || fake_clock.slept == Times(row.statuses.size(), 3)) << row.what;
    }
}

TEST_F(Spim, FailedClearingIsLoggedAndTheSlaveWokenAnyway) {
    spim_slave.statuses = {0x08};
    spim_slave.fails = frames_fail(0x08);
    run([] { EXPECT_EQ(spim_wait_status(0x04, 5, 1), 2); });
    EXPECT_EQ(frames_as_text(), cleared("08"));
    EXPECT_EQ(log, (Lines{kQueryFailed}));
}

TEST_F(Spim, WakeupPollsUntilTheSlaveIsReady) {
    const struct {
        const char* what;
        std::deque<int> statuses; // then it is awake
        uint8_t fails;            // opcode
        uint32_t reads;
        Lines log;
    } rows[] = {
        {"at once", {}, 0, 1, {}},
        {"not with other bits", {0x00, 0x80, 0x20, 0x01}, 0, 4, {}},
        {"nor with the ready bit of 0x81", {0x81, 0x81, 0x83}, 0, 3, {}},
        {"of which nothing remains", {0x81, kFails, 0x01}, 0, 3, {kQueryFailed}},
        {"a failed start is polled", {}, 0x0C, 1, {kQueryFailed}},
        {"a failed poll ends it", {}, 0x0E, 0, {kPollFailed}},
    };
    for (const auto& row : rows) {
        start();
        spim_slave.statuses = row.statuses;
        spim_slave.fails = frames_fail(row.fails);
        run([] { spim_wakeup(); });
        EXPECT_EQ(spim_slave.status_reads, row.reads) << row.what;
        EXPECT_EQ(frames_with(0x0E), std::max(row.reads, 1U)) << row.what;
        EXPECT_EQ(frames_with(0x0C), 1U) << row.what;
        EXPECT_EQ(frames_as_text()[0], "0C") << row.what;
        Times pauses(1 + row.reads, 1);
        pauses.push_back(10);
        EXPECT_EQ(fake_clock.slept, pauses) << row.what;
        EXPECT_EQ(log, row.log) << row.what;
    }
}

TEST_F(Spim, WakeupGivesUpWithThe501stPoll) {
    chip_has("asleep", "on");
    run([] { spim_wakeup(); });
    EXPECT_EQ(frames_with(0x0E), 501U);
    EXPECT_EQ(spim_slave.status_reads, 500U);
    EXPECT_EQ(fake_clock_slept(), 1 + 500 + 10);
    EXPECT_EQ(log, (Lines{kPollTimeout}));
}

TEST_F(Spim, LongTransfersAreSplit) {
    struct Split {
        uint32_t n;
        std::vector<size_t> frames;
    };
    for (const Split& split : std::vector<Split>{
             {1, {2}}, {4095, {4096}}, {4096, {4096, 2}}, {8190, {4096, 4096}}, {8191, {4096, 4096, 2}}}) {
        const Bytes data = bytes_from(3, split.n);
        start();
        EXPECT_EQ(spim_write_chunked(data.data(), split.n), 1U);
        std::vector<size_t> sizes;
        Bytes moved;
        for (const Bytes& frame : spim_slave.frames) {
            if (frame[0] == 0x06) {
                sizes.push_back(frame.size());
                moved.insert(moved.end(), frame.begin() + 1, frame.end());
            }
        }
        EXPECT_EQ(sizes, split.frames) << split.n;
        EXPECT_EQ(moved, data) << split.n;

        start();
        chip_sends(data);
        moved.push_back(0x55);
        Bytes read(split.n + 1, 0x55);
        EXPECT_EQ(spim_read_chunked(read.data(), split.n), split.n);
        EXPECT_EQ(read, moved) << split.n;
        EXPECT_EQ(frames_with(0x02), split.frames.size()) << split.n;
        EXPECT_EQ(violations(), 0U);
    }
}

TEST_F(Spim, ChunkedFormsDoNothingWithoutBytes) {
    uint8_t byte = 1;
    EXPECT_EQ(spim_read_chunked(nullptr, 5), 0U);
    EXPECT_EQ(spim_read_chunked(&byte, 0), 0U);
    EXPECT_EQ(spim_write_chunked(nullptr, 5), 0U);
    EXPECT_EQ(spim_write_chunked(&byte, 0), 0U);
    EXPECT_TRUE(spim_slave.frames.empty());
}

TEST_F(Spim, ChunkedFormsTellNoFailure) {
    spim_slave.fails = [](const Bytes&) { return true; };
    uint8_t bytes[3] = {1, 2, 3};
    run([&] {
        EXPECT_EQ(spim_write_chunked(bytes, 3), 1U);
        EXPECT_EQ(spim_read_chunked(bytes, 3), 3U);
    });
    EXPECT_EQ(Bytes(bytes, bytes + 3), (Bytes{0, 0, 0}));
    EXPECT_EQ(log, (Lines{"[E] [SPIM] SPI master send CWR command failed",
                          "[E] [SPIM] SPI master send CR command failed"}));
}
