// The multiplexer's slave, byte for byte on the wire.
#include "chip_wire.h"

#include <gtest/gtest.h>

namespace {

const Bytes kReadTxLen = {0x0A, 0x08, 0, 0, 0, 3, 0, 0, 0};

} // namespace

TEST(ChipSlave, PoweredOffChipReadsAllOnes) {
    Host host(quiet(), false);
    EXPECT_EQ(host.frame({0x06, 0x00}), (Bytes{0xFF, 0xFF}));
    EXPECT_EQ(host.frame({0x81, 0, 0, 0, 0}), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(host.seen().violations, 0U);
    EXPECT_EQ(host.seen().transfers, 2U);
}

TEST(ChipSlave, ColdBootLeavesTheInterfaceUnpowered) {
    Host host(quiet(), false);
    chip_power(host.chip, true, 0);
    EXPECT_EQ(host.frame({0x06, 0x00}), (Bytes{0x00, 0x00}));
    host.interface_on();
    EXPECT_EQ(host.status(), 0x01);
    host.interface_off();
    EXPECT_EQ(host.status(), 0x00);
    EXPECT_EQ(host.seen().cold_boots, 1U);
}

TEST(ChipSlave, WhatIsNotReadWaitsUntilTheNextColdBoot) {
    Host host(quiet());
    chip_queue(host.chip, "abcdefgh");
    EXPECT_EQ(host.read_register(0x08), 8U);
    EXPECT_EQ(host.read_data(3), "abc");
    host.interface_off();
    host.interface_on();
    EXPECT_EQ(host.read_all(), "defgh");
    chip_queue(host.chip, "abc");
    chip_power(host.chip, false, 1);
    chip_power(host.chip, true, 2);
    host.interface_on();
    EXPECT_EQ(host.read_register(0x08), 0U);
}

TEST(ChipSlave, RxLenSaysTheWindow) {
    ChipOptions options = quiet();
    Host host(options);
    EXPECT_EQ(host.read_register(0x04), 4096U);
    options.rx_window = 7;
    Host narrow(options);
    EXPECT_EQ(narrow.read_register(0x04), 7U);
}

TEST(ChipSlave, DoneBitsShowBehindTheBusyPolls) {
    for (const uint32_t busy : {0U, 2U}) {
        ChipOptions options = quiet();
        options.busy_polls = busy;
        Host host(options);
        EXPECT_EQ(host.frame(kReadTxLen), Bytes(9));
        for (uint32_t i = 0; i < busy; ++i) {
            EXPECT_EQ(host.status(), 0x01);
        }
        EXPECT_EQ(host.status(), 0x05);
        EXPECT_EQ(host.frame({0x81, 0, 0, 0, 0}), Bytes(5)) << "nothing waits";
        for (uint32_t i = 0; i < busy; ++i) {
            EXPECT_EQ(host.status(), 0x01);
        }
        EXPECT_EQ(host.status(), 0x21);
        EXPECT_EQ(host.seen().violations, 0U);
    }
}

TEST(ChipSlave, NextCommandClearsTheDoneBits) {
    ChipOptions options = quiet();
    Host host(options);
    host.read_register(0x08);
    EXPECT_EQ(host.status(), 0x21);
    host.frame(kReadTxLen);
    EXPECT_EQ(host.status(), 0x05);
    host.interface_on();
    EXPECT_EQ(host.status(), 0x01);
}

TEST(ChipSlave, NullBuffersAreZerosOutAndNothingIn) {
    Host host(quiet());
    EXPECT_TRUE(chip_spi_transfer(host.chip, nullptr, nullptr, 4, 0));
    EXPECT_EQ(host.seen().last_violation, "unknown opcode (0x0)");
    EXPECT_TRUE(chip_spi_transfer(host.chip, nullptr, nullptr, 0, 0));
}

TEST(ChipSlave, ErrorBitsStayUntilTheStatusIsWrittenBack) {
    Host host(quiet());
    host.frame({0x33});
    EXPECT_EQ(host.status(), 0x09);
    EXPECT_EQ(host.status(), 0x09);
    host.frame({0x08, 0x09});
    EXPECT_EQ(host.status(), 0x01);
}

TEST(ChipSlave, ViolationIsRefusedCountedAndShownAsError) {
    const Bytes read_word = {0x81, 0, 0, 0, 0};
    const Bytes read_four = {0x0A, 0, 0x20, 0, 0, 3, 0, 0, 0};
    const struct {
        std::vector<Bytes> frames; // the last one breaks the protocol
        const char* text;
    } rows[] = {
        {{{0x33, 0}}, "unknown opcode (0x33)"},
        {{{0x06}}, "status frame is not 2 bytes (0x1)"},
        {{{0x04, 0}}, "power frame is not 1 byte (0x2)"},
        {{{0x06, 0}, {0x08, 0x18}}, "status written back is not the status read (0x18)"},
        {{{0x0A, 8, 0, 0, 0, 3, 0, 0}}, "configuration frame is not 9 bytes (0x8)"},
        {{{0x0A, 8, 0, 0, 0, 4, 0, 0, 0}}, "register length is not 4 (0x8)"},
        {{{0x0A, 0x0C, 0, 0, 0, 3, 0, 0, 0}}, "no such address (0xc)"},
        {{{0x0C, 8, 0, 0, 0, 3, 0, 0, 0}}, "no such address (0x8)"},
        {{kReadTxLen, read_word, {0x0C, 0, 0x20, 0, 0, 0, 0, 0, 0}}, "no such address (0x1)"},
        {{{0x0A, 0, 0x20, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}}, "length field too large (0xffffffff)"},
        {{{0x0A, 0, 0x20, 0, 0, 0, 0, 0, 0}}, "read of more than Tx_len said (0x1)"},
        {{kReadTxLen, read_word, {0x0A, 0, 0x20, 0, 0, 4, 0, 0, 0}}, "read of more than Tx_len said (0x5)"},
        {{{0x0C, 0, 0x10, 0, 0, 0, 0, 0, 0}}, "write of more than Rx_len said (0x1)"},
        {{read_word}, "data phase without its command (0x5)"},
        {{kReadTxLen, {0x0E, 'a'}}, "data phase without its command (0x2)"},
        {{kReadTxLen, read_word, read_four, {0x81, 0, 0, 0}},
         "data phase of another length than its command (0x4)"},
        {{kReadTxLen, {0x81, 0, 0, 0, 0, 0}}, "data phase of another length than its command (0x6)"},
        {{{0x02}, kReadTxLen}, "command to an unpowered interface (0xa)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        Host host(quiet());
        chip_queue(host.chip, "abcd");
        for (const Bytes& frame : row.frames) {
            EXPECT_EQ(host.seen().violations, 0U);
            host.frame(frame);
        }
        EXPECT_EQ(host.seen().violations, 1U);
        EXPECT_EQ(host.seen().last_violation, row.text);
        EXPECT_EQ(host.status() & 0x08, 0x08);
        EXPECT_EQ(host.seen().bytes_queued, 4U) << "nothing is consumed";
        EXPECT_EQ(host.seen().bytes_received, 0U);
    }
}

TEST(ChipSlave, DataPhaseBeforeTheCommandIsDoneIsAViolation) {
    ChipOptions options = quiet();
    options.busy_polls = 1;
    Host host(options);
    host.frame(kReadTxLen);
    host.frame({0x81, 0, 0, 0, 0});
    EXPECT_EQ(host.seen().last_violation, "data phase before the command was done (0x5)");
}

TEST(ChipSlave, DataIsNotReadTwiceOnOneAnnouncement) {
    Host host(quiet());
    chip_queue(host.chip, "abcd");
    EXPECT_EQ(host.read_register(0x08), 4U);
    EXPECT_EQ(host.read_data(3), "abc");
    host.frame({0x0A, 0, 0x20, 0, 0, 1, 0, 0, 0});
    EXPECT_EQ(host.seen().last_violation, "read of more than Tx_len said (0x2)");
}

TEST(ChipQueue, IsRefusedWhenOffOrFull) {
    ChipOptions options = quiet();
    options.tx_fifo_size = 256;
    Host host(options, false);
    EXPECT_NE(chip_queue(host.chip, "a"), "");
    chip_power(host.chip, true, 0);
    EXPECT_EQ(chip_queue(host.chip, std::string(256, 'a')), "");
    EXPECT_NE(chip_queue(host.chip, "a"), "");
}
