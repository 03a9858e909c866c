#include "download/spim.h"

#include "spim_slave.h"
#include "support/fake_clock.h"

#include <string>
#include <vector>

namespace {

using Times = std::vector<int64_t>;
using std::string;

const string kQueryFailed = "[E] [SPIM] SPI master query status of slaver failed";
const string kPollFailed = "[E] SPI master query status of slaver failed";
const string kPollTimeout = "[E] SPI master query status of slaver failed(timeout)";

struct Spim : SpimTest {
    int32_t wait(uint8_t mask, uint32_t tries, uint32_t delay) {
        int32_t result = 99;
        run([&] { result = spim_wait_status(mask, tries, delay); });
        return result;
    }
    void wakeup() {
        run([] { spim_wakeup(); });
    }
};

Bytes bytes_from(uint8_t first, size_t n) {
    Bytes bytes(n);
    for (size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}

} // namespace

TEST_F(Spim, OpensTheConfiguredDeviceInMode0) {
    ASSERT_EQ(spim_slave.opened.size(), 1U);
    const location_spi_config& config = spim_slave.opened[0];
    EXPECT_EQ(config.mode, 0U);
    EXPECT_EQ(config.lsb_first, 1);
    EXPECT_EQ(config.bits_per_word, 8);
    EXPECT_EQ(config.max_speed_hz, 5000000U);
    EXPECT_STREQ(config.path, "/dev/spidev0.0");
}

TEST_F(Spim, OnlyBitOrder0RunsTheDeviceLeastSignificantBitFirst) {
    for (const uint32_t order : {1U, 2U}) {
        EXPECT_EQ(reopen(order), 1);
        EXPECT_EQ(spim_slave.opened.back().lsb_first, 0) << order;
    }
}

TEST_F(Spim, LongestPathFits) {
    spim_close();
    const string path(127, 'x');
    spim_slave.port.path = path.c_str();
    EXPECT_EQ(spim_open(spim_slave.port), 1);
    EXPECT_EQ(spim_slave.opened.back().path, path);
}

TEST_F(Spim, FailedOpenLeavesNothingToClose) {
    spim_close();
    spim_slave.open_result = -1;
    spim_slave.closed.clear();
    EXPECT_EQ(spim_open(spim_slave.port), 0);
    EXPECT_EQ(spim_close(), 0);
    EXPECT_TRUE(spim_slave.closed.empty());
}

TEST_F(Spim, ClosesOnce) {
    EXPECT_EQ(spim_close(), 1);
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_slave.closed, (std::vector<int32_t>{7}));
}

TEST_F(Spim, FailedCloseIsToldAndNotRepeated) {
    spim_slave.close_result = -1;
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_close(), 0);
    EXPECT_EQ(spim_slave.closed.size(), 1U);
}

TEST_F(Spim, FrameIsAsLongAsTheLongerSide) {
    uint8_t tx[4] = {0x06, 1, 2, 3};
    uint8_t rx[4] = {};
    spim_transfer longer_tx = {tx, 4, nullptr, 0};
    EXPECT_EQ(spim_transfer_full(&longer_tx), 0);
    tx[0] = 0x81;
    spim_slave.data = {9, 8, 7};
    spim_transfer longer_rx = {tx, 1, rx, 4};
    EXPECT_EQ(spim_transfer_full(&longer_rx), 0);
    EXPECT_EQ(frames_as_text(), (Lines{"06 01 02 03", "81 01 02 03"}));
    EXPECT_EQ(Bytes(rx, rx + 4), (Bytes{0, 9, 8, 7}));
}

TEST_F(Spim, FrameThatFailsOrMovesNothingIsTold) {
    spim_slave.fails = [](const Bytes&) { return true; };
    for (const int32_t result : {-1, 0}) {
        spim_slave.failed_result = result;
        uint8_t byte = 0x0C;
        spim_transfer transfer = {&byte, 1, nullptr, 0};
        EXPECT_EQ(spim_transfer_full(&transfer), -1);
    }
}

TEST_F(Spim, BitOrder1TurnsTheBitsInTheSendersBuffer) {
    reopen(1);
    uint8_t tx[5] = {0x06, 0x01, 0x80, 0xF0, 0x12};
    spim_transfer transfer = {tx, 5, nullptr, 0};
    EXPECT_EQ(spim_transfer_full(&transfer), 0);
    EXPECT_EQ(Bytes(tx, tx + 5), (Bytes{0x60, 0x80, 0x01, 0x0F, 0x48}));
    EXPECT_EQ(frames_as_text(), (Lines{"06 01 80 F0 12"}));
}

TEST_F(Spim, BitOrder1TurnsReceivedBits) {
    reopen(1);
    spim_slave.data = {0x01, 0x35};
    uint8_t tx[3] = {0x81};
    uint8_t rx[3] = {};
    spim_transfer transfer = {tx, 1, rx, 3};
    EXPECT_EQ(spim_transfer_full(&transfer), 0);
    EXPECT_EQ(Bytes(rx, rx + 3), (Bytes{0, 0x01, 0x35}));
    EXPECT_EQ(frames_as_text(), (Lines{"81 00 00"}));
}

TEST_F(Spim, BitOrder1LeavesTheAnswerOfAFailedFrame) {
    reopen(1);
    spim_slave.fails = [](const Bytes&) { return true; };
    uint8_t tx[2] = {0x81};
    uint8_t rx[2] = {0x01, 0x01};
    spim_transfer transfer = {tx, 1, rx, 2};
    EXPECT_EQ(spim_transfer_full(&transfer), -1);
    EXPECT_EQ(Bytes(rx, rx + 2), (Bytes{0x01, 0x01}));
}

TEST_F(Spim, OtherBitOrdersTurnNothing) {
    reopen(2);
    uint8_t tx[2] = {0x06, 0x01};
    spim_transfer transfer = {tx, 2, nullptr, 0};
    EXPECT_EQ(spim_transfer_full(&transfer), 0);
    EXPECT_EQ(Bytes(tx, tx + 2), (Bytes{0x06, 0x01}));
}

TEST_F(Spim, StatusIsTheSecondByte) {
    for (const uint32_t order : {0U, 1U}) {
        reopen(order);
        spim_slave.statuses = {0x25};
        uint8_t status = 0;
        run([&] { spim_read_status(&status); });
        EXPECT_EQ(status, 0x25);
        EXPECT_EQ(log, Lines{});
    }
}

TEST_F(Spim, FailedStatusReadLeavesTheStatus) {
    spim_slave.statuses = {kFails};
    uint8_t status = 0x42;
    run([&] { spim_read_status(&status); });
    EXPECT_EQ(status, 0x42);
    EXPECT_EQ(log, (Lines{kQueryFailed}));
}

TEST_F(Spim, WaitEndsWhenAllBitsAreSet) {
    spim_slave.statuses = {0x00, 0x04, 0x20, 0x25};
    EXPECT_EQ(wait(0x24, 10, 3), 0);
    EXPECT_EQ(spim_slave.status_reads, 4U);
    EXPECT_EQ(fake_clock.slept, (Times{3, 3, 3, 3}));
    EXPECT_EQ(log, Lines{});
    EXPECT_TRUE(spim_slave.frames.empty());
}

TEST_F(Spim, WaitEndsWhenItsTriesAreUsedUp) {
    spim_slave.statuses = {1, 1, 1};
    EXPECT_EQ(wait(0x04, 3, 80), 1);
    EXPECT_EQ(fake_clock.slept, (Times{80, 80, 80}));
}

TEST_F(Spim, LastTryStillCounts) {
    spim_slave.statuses = {1, 1, 4};
    EXPECT_EQ(wait(0x04, 3, 1), 0);
}

TEST_F(Spim, NobodyIsNeverASuccess) {
    spim_slave.statuses = {0xFF, 0xFF, 0xFF};
    EXPECT_EQ(wait(0x04, 3, 1), 1);
    EXPECT_EQ(log,
              (Lines{"[E] [SPIM] Error Status=0xff , counter=0", "[E] [SPIM] Error Status=0xff , counter=1",
                     "[E] [SPIM] Error Status=0xff , counter=2"}));
    EXPECT_TRUE(spim_slave.frames.empty());
}

TEST_F(Spim, WaitGoesOnBehindNobody) {
    spim_slave.statuses = {0xFF, 0x04};
    EXPECT_EQ(wait(0x04, 2, 1), 0);
}

TEST_F(Spim, StatusThatCantBeReadCountsAsTheLastOne) {
    spim_slave.statuses = {kFails, kFails};
    EXPECT_EQ(wait(0x04, 2, 1), 1);
    EXPECT_EQ(log, (Lines{kQueryFailed}));
    spim_slave.statuses = {0xFF, kFails};
    EXPECT_EQ(wait(0x04, 2, 1), 1);
    EXPECT_EQ(log, (Lines{kQueryFailed + " (1 left out)", "[E] [SPIM] Error Status=0xff , counter=0",
                          kQueryFailed, "[E] [SPIM] Error Status=0xff , counter=1"}));
}

TEST_F(Spim, FaultStatusEndsTheWait) {
    for (const int status : {0x80, 0x84, 0xE7}) {
        spim_slave.statuses = {status};
        EXPECT_EQ(wait(0x04, 5, 1), 3) << status;
        EXPECT_EQ(log, Lines{});
    }
    EXPECT_TRUE(spim_slave.frames.empty());
}

TEST_F(Spim, ErrorStatusIsClearedAndTheSlaveWoken) {
    for (const int status : {0x08, 0x10, 0x1C, 0x98, 0x3F}) {
        spim_slave.frames.clear();
        spim_slave.statuses = {status};
        EXPECT_EQ(wait(0x04, 5, 1), 2) << status;
        const string bits = (status & 0x18) == 0x18 ? "18" : (status & 0x18) == 0x10 ? "10" : "08";
        EXPECT_EQ(frames_as_text(), (Lines{"08 " + bits, "0C", "0E"})) << status;
        EXPECT_EQ(log, Lines{});
    }
}

TEST_F(Spim, FailedClearingIsLoggedAndTheSlaveWokenAnyway) {
    spim_slave.statuses = {0x08};
    spim_slave.fails = [](const Bytes& frame) { return frame[0] == 0x08; };
    EXPECT_EQ(wait(0x04, 5, 1), 2);
    EXPECT_EQ(frames_as_text(), (Lines{"08 08", "0C", "0E"}));
    EXPECT_EQ(log, (Lines{kQueryFailed}));
}

TEST_F(Spim, WakeupPollsUntilTheSlaveIsReady) {
    spim_slave.statuses = {0x00, 0x80, 0x20, 0x01};
    wakeup();
    EXPECT_EQ(frames_as_text(), (Lines{"0C", "0E", "0E", "0E", "0E"}));
    EXPECT_EQ(spim_slave.status_reads, 4U);
    EXPECT_EQ(fake_clock.slept, (Times{1, 1, 1, 1, 1, 10}));
    EXPECT_EQ(log, Lines{});
}

TEST_F(Spim, ReadyBitOf81IsNotAwake) {
    spim_slave.statuses = {0x81, 0x81, 0x83};
    wakeup();
    EXPECT_EQ(spim_slave.status_reads, 3U);
}

TEST_F(Spim, NothingRemainsOf81) {
    spim_slave.statuses = {0x81, kFails, 0x01};
    wakeup();
    EXPECT_EQ(spim_slave.status_reads, 3U);
    EXPECT_EQ(log, (Lines{kQueryFailed}));
}

TEST_F(Spim, FailedWakeupStartIsLoggedAndPolled) {
    spim_slave.fails = [](const Bytes& frame) { return frame[0] == 0x0C; };
    wakeup();
    EXPECT_EQ(frames_as_text(), (Lines{"0C", "0E"}));
    EXPECT_EQ(log, (Lines{kQueryFailed}));
}

TEST_F(Spim, FailedPollEndsTheWakeup) {
    spim_slave.fails = [](const Bytes& frame) { return frame[0] == 0x0E; };
    wakeup();
    EXPECT_EQ(frames_as_text(), (Lines{"0C", "0E"}));
    EXPECT_EQ(spim_slave.status_reads, 0U);
    EXPECT_EQ(fake_clock.slept, (Times{1, 10}));
    EXPECT_EQ(log, (Lines{kPollFailed}));
}

TEST_F(Spim, WakeupGivesUpWithThe501stPoll) {
    spim_slave.status_after = [](uint8_t) { return 0x81; };
    wakeup();
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
        spim_slave.frames.clear();
        EXPECT_EQ(spim_write_chunked(data.data(), split.n), 1U);
        std::vector<size_t> sizes;
        Bytes written;
        for (const Bytes& frame : spim_slave.frames) {
            if (frame[0] == 0x06) {
                sizes.push_back(frame.size());
                written.insert(written.end(), frame.begin() + 1, frame.end());
            }
        }
        EXPECT_EQ(sizes, split.frames) << split.n;
        EXPECT_EQ(written, data) << split.n;
    }
}

TEST_F(Spim, LongReadsAreSplit) {
    spim_slave.data = bytes_from(7, 4095);
    Bytes buffer(4097, 0x55);
    EXPECT_EQ(spim_read_chunked(buffer.data(), 4096), 4096U);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 4095), spim_slave.data);
    EXPECT_EQ(Bytes(buffer.end() - 2, buffer.end()), (Bytes{7, 0x55}));
    EXPECT_EQ(frames_with(0x02), 2U);
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
