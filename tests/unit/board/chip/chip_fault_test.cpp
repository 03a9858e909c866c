// Faults: what the host sees while they last, and that the chip works again after them.
#include "chip_wire.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace {

struct FaultyHost : Host {
    explicit FaultyHost(ChipOptions options = quiet()) : Host(std::move(options)) {}
    void fault(const std::string& name, const std::string& value) {
        EXPECT_EQ(chip_fault(chip, name, value, now_us), "") << name << " " << value;
    }
    bool transfer() {
        const uint8_t tx[2] = {0x06, 0x00};
        uint8_t rx[2];
        return chip_spi_transfer(chip, tx, rx, sizeof tx, now_us);
    }
    std::vector<std::string> active() {
        return seen().faults;
    }
    void expect_works() {
        interface_off();
        interface_on();
        const uint8_t status_now = status();
        frame({0x08, status_now});
        ASSERT_EQ(chip_queue(chip, "abc"), "");
        EXPECT_EQ(read_all(), "abc");
        EXPECT_EQ(seen().violations, 0U) << seen().last_violation;
    }
};

using Lines = std::vector<std::string>;

} // namespace

TEST(ChipFault, StatusErrorShowsInTheNextReadsOnly) {
    FaultyHost host;
    host.fault("status-error", "2");
    EXPECT_EQ(host.active(), Lines{"status-error 2:0x08"});
    EXPECT_EQ(host.status(), 0x09);
    EXPECT_EQ(host.status(), 0x09);
    EXPECT_EQ(host.status(), 0x01);
    EXPECT_EQ(host.active(), Lines{});
    host.fault("status-error", "once:0x18");
    EXPECT_EQ(host.status(), 0x19);
    EXPECT_EQ(host.status(), 0x01);
    host.expect_works();
}

TEST(ChipFault, StatusErrorAlwaysLastsUntilItIsSwitchedOff) {
    FaultyHost host;
    host.fault("status-error", "always:0x10");
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(host.status(), 0x11);
    }
    host.fault("status-error", "off");
    host.expect_works();
}

TEST(ChipFault, SilenceAnswersAllOnesZeroZerosAndNeitherTakesAnything) {
    FaultyHost host;
    host.fault("silence", "on");
    EXPECT_EQ(host.frame({0x06, 0}), (Bytes{0xFF, 0xFF}));
    host.interface_off();
    host.fault("silence", "off");
    EXPECT_EQ(host.status(), 0x01) << "the power-off was not heard";
    host.fault("zero", "on");
    EXPECT_EQ(host.frame({0x06, 0}), (Bytes{0, 0}));
    host.fault("zero", "off");
    host.expect_works();
}

TEST(ChipFault, UnpoweredKeepsTheInterfaceOff) {
    FaultyHost host;
    host.fault("unpowered", "on");
    EXPECT_EQ(host.status(), 0x00);
    host.interface_on();
    EXPECT_EQ(host.status(), 0x00);
    EXPECT_FALSE(host.seen().interface_powered);
    host.fault("unpowered", "off");
    EXPECT_EQ(host.status(), 0x00) << "until the host switches it on";
    host.expect_works();
}

TEST(ChipFault, NeverReadyShowsNoDoneBit) {
    FaultyHost host;
    host.fault("never-ready", "on");
    host.frame({0x0A, 8, 0, 0, 0, 3, 0, 0, 0});
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(host.status(), 0x01);
    }
    host.fault("never-ready", "off");
    host.expect_works();
}

TEST(ChipFault, TransferFailReachesAnOffChipToo) {
    for (const auto& [value, pattern] :
         {std::pair{"2", "--+++++++"}, std::pair{"every:3", "++-++-++-"}, std::pair{"always", "---------"}}) {
        for (const bool on : {true, false}) {
            FaultyHost host;
            chip_power(host.chip, on, 0);
            host.fault("transfer-fail", value);
            EXPECT_EQ(host.active(), Lines{std::string("transfer-fail ") + value});
            std::string seen;
            for (int i = 0; i < 9; ++i) {
                seen += host.transfer() ? '+' : '-';
            }
            EXPECT_EQ(seen, pattern) << value;
            host.fault("transfer-fail", "off");
            EXPECT_TRUE(host.transfer());
        }
    }
}

TEST(ChipFault, GarbageIsSeeded) {
    ChipOptions options = quiet();
    options.seed = 5;
    FaultyHost first(options);
    FaultyHost second(options);
    options.seed = 6;
    FaultyHost other(options);
    const Bytes frame(64, 0x06);
    for (FaultyHost* host : {&first, &second, &other}) {
        host->fault("garbage", "on");
    }
    const Bytes bytes = first.frame(frame);
    EXPECT_EQ(second.frame(frame), bytes);
    EXPECT_NE(other.frame(frame), bytes);
    first.fault("garbage", "off");
    first.expect_works();
}

TEST(ChipFault, GarbageInDataOrStatusKeepsTheOtherRight) {
    FaultyHost host;
    host.fault("garbage", "data");
    chip_queue(host.chip, "abcd");
    EXPECT_NE(host.read_register(0x08), 4U);
    EXPECT_EQ(host.status(), 0x21);
    host.fault("garbage", "status");
    host.interface_on();
    std::set<uint8_t> seen;
    for (int i = 0; i < 64; ++i) {
        seen.insert(host.status());
    }
    EXPECT_GT(seen.size(), 16U);
    host.frame({0x0A, 4, 0, 0, 0, 3, 0, 0, 0});
    EXPECT_EQ(host.frame({0x81, 0, 0, 0, 0}), (Bytes{0, 0x00, 0x10, 0, 0}));
    host.fault("garbage", "off");
    host.interface_on();
    EXPECT_EQ(host.read_all(), "abcd");
}

TEST(ChipFault, BytewiseNeverOffersMoreThanOne) {
    FaultyHost host;
    host.fault("bytewise", "on");
    chip_queue(host.chip, "abc");
    for (const char* expected : {"a", "b", "c"}) {
        EXPECT_EQ(host.read_register(0x08), 1U);
        EXPECT_EQ(host.read_data(1), expected);
    }
    EXPECT_EQ(host.read_register(0x08), 0U);
    host.expect_works();
}

TEST(ChipFault, HostileLengthsAreServedWithPadding) {
    FaultyHost host;
    host.fault("hostile-length", "on");
    EXPECT_EQ(host.read_register(0x04), 0xFFFFFFFFU);
    EXPECT_EQ(host.read_register(0x08), 0xFFFFFFFFU);
    chip_queue(host.chip, "abc");
    EXPECT_EQ(host.read_data(5), std::string("abc\0\0", 5));
    EXPECT_EQ(host.seen().bytes_delivered, 3U);
    host.fault("hostile-length", "rx");
    EXPECT_EQ(host.active(), Lines{"hostile-length rx"});
    EXPECT_EQ(host.read_register(0x08), 0U);
    host.fault("hostile-length", "off");
    host.expect_works();
}

TEST(ChipFault, LengthsOfZeroKeepWhatWaits) {
    FaultyHost host;
    chip_queue(host.chip, "abc");
    host.fault("zero-length", "on");
    EXPECT_EQ(host.read_register(0x04), 0U);
    EXPECT_EQ(host.read_register(0x08), 0U);
    EXPECT_EQ(host.active(), Lines{"zero-length on"});
    host.fault("zero-length", "rx");
    EXPECT_EQ(host.read_all(), "abc");
    host.fault("zero-length", "off");
    host.expect_works();
}

TEST(ChipFault, BacklogWaitsAtOnceWhateverTheBufferSize) {
    FaultyHost host;
    host.fault("backlog", "200000");
    EXPECT_GE(host.seen().bytes_queued, 200000U);
    EXPECT_LT(host.seen().bytes_queued, 202000U);
    const auto sentences = sentences_of(host.read_all());
    EXPECT_TRUE(std::all_of(sentences.begin(), sentences.end(), is_valid_sentence));
    EXPECT_EQ(sentences.size(), host.seen().sentences_delivered);
    EXPECT_EQ(host.active(), Lines{});
}

TEST(ChipFault, BacklogNeedsAPoweredChip) {
    FaultyHost host;
    chip_power(host.chip, false, 0);
    EXPECT_NE(chip_fault(host.chip, "backlog", "1000", 0), "");
}

TEST(ChipFault, AllOffEndsEverything) {
    FaultyHost host;
    for (const char* name :
         {"silence", "zero", "unpowered", "never-ready", "bytewise", "garbage", "hostile-length"}) {
        host.fault(name, "on");
    }
    host.fault("status-error", "always");
    host.fault("transfer-fail", "every:2");
    EXPECT_EQ(host.active().size(), 9U);
    host.fault("all", "off");
    EXPECT_EQ(host.active(), Lines{});
    host.expect_works();
}

TEST(ChipFault, BadNamesAndValuesAreNamedAndChangeNothing) {
    FaultyHost host;
    EXPECT_EQ(chip_fault(host.chip, "smoke", "on", 0), "no fault is called \"smoke\"");
    EXPECT_EQ(chip_fault(host.chip, "silence", "maybe", 0), "fault silence: \"maybe\" is none of on|off");
    EXPECT_EQ(chip_fault(host.chip, "response-lost", "once@foo", 0),
              "fault response-lost: \"once@foo\" is none of once|N|always|every:N|off[@COMMAND]; "
              "COMMAND is one of address, size, id, erase, write, check, finish, read");
    const std::pair<const char*, std::vector<const char*>> bad[] = {
        {"status-error",
         {"", "0", "-1", "2x", "1000000001", "99999999999999999999", "once:", "once:0x20", "every:1"}},
        {"transfer-fail", {"", "every:", "every:0", "every:x", "on"}},
        {"backlog", {"", "0", "16777217", "much"}},
        {"garbage", {"some"}},
        {"hostile-length", {"some"}},
        {"zero-length", {"some"}},
        {"i2c-nack", {"", "0", "once:", "once:0x51", "0x50", "2:0x50:0x54"}},
        {"i2c-short", {"half"}},
        {"boot-silent", {"maybe"}},
        {"handshake-bad", {"5", "0", "1:"}},
        {"echo-bad", {"1001"}},
        {"boot-status", {"x"}},
        {"checksum-bad", {"on"}},
        {"response-lost", {"once@", "once@jump"}},
        {"response-twice", {"every:0"}},
        {"response-late", {"fast", "3600001"}},
        {"power-loss", {"0", "1@lunch"}},
    };
    for (const auto& [name, values] : bad) {
        for (const char* value : values) {
            const std::string error = chip_fault(host.chip, name, value, 0);
            EXPECT_EQ(error.rfind(std::string("fault ") + name + ":", 0), 0U) << name << " " << value;
        }
    }
    EXPECT_NE(chip_fault(host.chip, "all", "on", 0), "");
    EXPECT_EQ(host.active(), Lines{});
}

TEST(ChipFault, HostOutOfStepByAFaultBreaksNoRule) {
    FaultyHost host;
    host.frame({0x0A, 8, 0, 0, 0, 3, 0, 0, 0});
    host.fault("silence", "on");
    host.frame({0x81, 0, 0, 0, 0});
    host.fault("silence", "off");
    host.frame({0x0A, 0, 0x20, 0, 0, 9, 0, 0, 0});
    EXPECT_EQ(host.seen().violations, 0U);
    EXPECT_EQ(host.status() & 0x08, 0x08);
    host.interface_on();
    host.frame({0x33});
    EXPECT_EQ(host.seen().violations, 1U) << "from its power-on the host is held to the protocol again";
}

TEST(ChipFault, EveryFaultOfTheTableIsKnown) {
    for (const ChipFaultInfo& info : chip_fault_list()) {
        FaultyHost host;
        const std::string error = chip_fault(host.chip, info.name, "?", 0);
        EXPECT_EQ(error.rfind(std::string("fault ") + info.name + ":", 0), 0U) << error;
    }
}
