// The slave of the download transport, and who gets the chip after power-up.
#include "chip_download_wire.h"

#include <gtest/gtest.h>

namespace {

const Bytes kAnnounceOne = {0x04, 0, 0, 0xAA, 0x55, 0, 0, 0, 0};

uint64_t violations(const DownloadHost& host) {
    return chip_status(host.chip).violations;
}

std::string state(DownloadHost& host) {
    return host.seen().state;
}

} // namespace

TEST(ChipWindow, TransportFrameKeepsTheChipInItsBootRom) {
    for (const Bytes& first : {kAnnounceOne, Bytes{0x0A, 0}, Bytes{0x0C}, Bytes{0x0E}}) {
        DownloadHost host;
        EXPECT_EQ(state(host), "firmware");
        host.frame(first);
        EXPECT_EQ(state(host), "boot ROM") << int{first[0]};
        host.frame({0x0E});
        host.frame({0x0E});
        host.now_us += 3600000000;
        EXPECT_TRUE(host.handshake());
        EXPECT_EQ(host.seen().started, 1U);
        EXPECT_EQ(host.seen().result, "under way");
        EXPECT_EQ(violations(host), 0U);
    }
}

TEST(ChipWindow, MultiplexerFrameEndsIt) {
    DownloadHost host;
    host.frame({0x04}); // the multiplexer's power-on
    host.frame(kAnnounceOne);
    EXPECT_EQ(state(host), "firmware");
    EXPECT_EQ(host.frame({0x06, 0})[1], 0x09) << "an error to the multiplexer";
}

TEST(ChipWindow, MultiplexerOnI2cEndsItAndIsNotAnsweredByABootRom) {
    const uint8_t probe[] = {0x00};
    DownloadHost host;
    EXPECT_EQ(chip_i2c_write(host.chip, 0x50, probe, 1, host.now_us), 1U);
    host.frame(kAnnounceOne);
    EXPECT_EQ(state(host), "firmware");
    host.power(false);
    host.power(true);
    host.frame(kAnnounceOne);
    EXPECT_EQ(chip_i2c_write(host.chip, 0x50, probe, 1, host.now_us), std::nullopt);
    EXPECT_EQ(state(host), "boot ROM");
}

TEST(ChipWindow, ItEndsByItself) {
    ChipOptions options = DownloadHost::small();
    options.boot_window_ms = 200;
    for (const uint64_t wait_us : {199000, 200000}) {
        DownloadHost host(options);
        host.now_us += wait_us;
        host.frame(kAnnounceOne);
        EXPECT_EQ(state(host), wait_us < 200000 ? "boot ROM" : "firmware");
    }
}

TEST(ChipWindow, FirmwareOfABootRomIsForgotten) {
    DownloadHost host;
    ASSERT_EQ(chip_queue(host.chip, "abc"), "");
    host.frame(kAnnounceOne);
    EXPECT_EQ(chip_status(host.chip).bytes_queued, 0U);
    EXPECT_NE(chip_queue(host.chip, "abc"), "");
    host.power(false);
    EXPECT_EQ(host.seen().result, "cut off");
    host.power(true);
    EXPECT_EQ(state(host), "firmware");
}

TEST(ChipSpim, BlockIsAnnouncedThenMovedBehindItsBusyPolls) {
    for (const uint32_t busy : {0U, 1U}) {
        ChipOptions options = DownloadHost::small();
        options.busy_polls = busy;
        DownloadHost host(options);
        EXPECT_EQ(host.status(), 0x01) << "awake";
        host.frame(kAnnounceOne);
        EXPECT_TRUE(busy == 0 || host.status() == 0x01);
        EXPECT_EQ(host.status(), 0x05) << "announced";
        EXPECT_EQ(host.status(), 0x05);
        host.frame({0x06, 0xA0});
        EXPECT_TRUE(busy == 0 || host.status() == 0x01);
        EXPECT_EQ(host.status(), 0x25) << "moved";
        EXPECT_EQ(host.status(), 0x01);
    }
}

TEST(ChipSpim, DataPhaseMayBeRepeatedUntilTheHostHasSeenItDone) {
    DownloadHost host;
    host.frame(kAnnounceOne);
    host.status();
    host.frame({0x06, 0xA0});
    host.frame({0x06, 0xA0});
    host.status();
    EXPECT_EQ(host.read(2), (Bytes{0x5F, 0})) << "taken once";
    host.write({0xA0});
    host.frame({0x02, 0, 0, 0xAA, 0x55, 0, 0, 0, 0});
    host.status();
    EXPECT_EQ(host.frame({0x81, 0})[1], 0x5F);
    EXPECT_EQ(host.frame({0x81, 0})[1], 0x5F) << "shown again";
    host.status();
    EXPECT_EQ(host.read(1), Bytes{0});
    EXPECT_EQ(violations(host), 0U);
}

TEST(ChipSpim, LongestBlockHas4095Bytes) {
    DownloadHost host;
    host.frame({0x04, 0, 0, 0xAA, 0x55, 0xFE, 0x0F, 0, 0});
    EXPECT_EQ(host.status(), 0x05);
    host.frame(Bytes(4096, 0x06));
    EXPECT_EQ(host.status(), 0x25);
    host.frame({0x04, 0, 0, 0xAA, 0x55, 0xFF, 0x0F, 0, 0});
    EXPECT_EQ(chip_status(host.chip).last_violation, "download: length field too large (0xfff)");
}

TEST(ChipSpim, BrokenRulesSetAnErrorBitUntilItIsCleared) {
    const Bytes broken[] = {{0x04, 1, 0, 0xAA, 0x55, 0, 0, 0, 0},
                            {0x02},
                            {0x06, 0xA0},
                            {0x81, 0},
                            {0x0A},
                            {0x0C, 0},
                            {0x08, 0x20},
                            {0x77}};
    for (const Bytes& frame : broken) {
        DownloadHost host;
        host.status();
        host.frame(frame);
        EXPECT_EQ(violations(host), 1U) << int{frame[0]};
        EXPECT_EQ(host.status(), 0x09);
        host.frame({0x08, 0x10});
        EXPECT_EQ(host.status(), 0x09) << "another bit";
        host.frame({0x08, 0x08});
        EXPECT_EQ(host.status(), 0x01);
    }
    DownloadHost host;
    host.frame(kAnnounceOne);
    host.status();
    host.frame({0x06, 0xA0, 0x0A});
    EXPECT_EQ(chip_status(host.chip).last_violation,
              "download: data phase of another length than its command (0x3)");
}

TEST(ChipSpim, WakeUpTakesAsManyPollsAsAskedForAndForgetsTheBlock) {
    ChipOptions options = DownloadHost::small();
    options.sleepy_polls = 2;
    DownloadHost host(options);
    host.frame(kAnnounceOne);
    host.status();
    host.frame({0x06, 0xA0});
    host.frame({0x0C});
    for (const uint8_t expected : Bytes{0x81, 0x81, 0x01}) {
        host.frame({0x0E});
        EXPECT_EQ(host.status(), expected);
    }
    EXPECT_EQ(host.read(1), Bytes{0}) << "the block was forgotten";
    EXPECT_EQ(host.seen().wake_ups, 1U);
}

TEST(ChipSpim, SleepingSlaveTakesNoCommandAndMayNeverWake) {
    DownloadHost host;
    host.frame({0x0C});
    host.frame(kAnnounceOne);
    EXPECT_EQ(host.status(), 0x81);
    host.fault("asleep", "on");
    for (int i = 0; i < 501; ++i) {
        host.frame({0x0E});
        ASSERT_EQ(host.status(), 0x81);
    }
    host.fault("asleep", "off");
    host.frame({0x0E});
    EXPECT_EQ(host.status(), 0x01);
    EXPECT_EQ(violations(host), 0U);
}

TEST(ChipSpim, StatusErrorTakesNothingAndTheBlockComesAgainAfterIt) {
    DownloadHost host;
    host.frame(kAnnounceOne);
    host.status();
    host.fault("status-error", "once:0x10");
    host.frame({0x06, 0xA0});
    EXPECT_EQ(host.status(), 0x35);
    host.frame({0x08, 0x10});
    host.frame({0x0C});
    host.frame({0x0E});
    host.frame({0x0E});
    host.write({0xA0});
    EXPECT_EQ(host.read(2), (Bytes{0x5F, 0})) << "taken once";
}

TEST(ChipSpim, FaultsOfTheMultiplexersSlaveReachItToo) {
    DownloadHost host;
    host.fault("silence", "on");
    EXPECT_EQ(host.frame(kAnnounceOne), Bytes(9, 0xFF));
    EXPECT_EQ(state(host), "firmware");
    host.fault("silence", "off");
    host.fault("never-ready", "on");
    host.frame(kAnnounceOne);
    EXPECT_EQ(host.status(), 0x01);
    host.fault("never-ready", "off");
    EXPECT_EQ(host.status(), 0x05);
    host.fault("garbage", "data");
    EXPECT_NE(host.read(64), Bytes(64));
    host.fault("garbage", "status");
    std::set<uint8_t> seen;
    for (int i = 0; i < 64; ++i) {
        seen.insert(host.status());
    }
    EXPECT_GT(seen.size(), 16U);
}

TEST(ChipSpim, HostOutOfStepByAFaultBreaksNoRule) {
    DownloadHost host;
    host.status();
    host.fault("silence", "on");
    host.frame(kAnnounceOne);
    host.fault("silence", "off");
    host.frame({0x06, 0xA0});
    EXPECT_EQ(violations(host), 0U);
    host.frame({0x0C});
    host.frame({0x0E});
    host.frame({0x0E});
    host.frame({0x06, 0xA0});
    EXPECT_EQ(violations(host), 1U) << "from its wake-up the host is held to the protocol again";
}
