// The boot ROM's echo protocol.
#include "chip_download_wire.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

TEST(ChipBootRom, FirstByteStartsTheHandshakeAgainAndAWrongOneIsNotAnswered) {
    DownloadHost host;
    host.write({0xA0, 0x0A, 0xA0});
    EXPECT_EQ(host.read(3), (Bytes{0x5F, 0xF5, 0x5F}));
    host.write({0x50});
    EXPECT_EQ(host.read(1), Bytes{0});
    host.write({0x0A});
    EXPECT_EQ(host.read(1), Bytes{0}) << "begins with the first byte again";
    EXPECT_TRUE(host.handshake());
}

TEST(ChipBootRom, RegisterElsewhereOrMoreThanOneIsRefused) {
    for (const auto& [address, count] : {std::pair{0xA2070000U, 1U}, std::pair{0xA2080000U, 2U}}) {
        DownloadHost host;
        ASSERT_TRUE(host.handshake());
        EXPECT_TRUE(host.echo(0xD2, 1));
        EXPECT_TRUE(host.echo(address, 4));
        EXPECT_TRUE(host.echo(count, 4));
        EXPECT_EQ(host.read_number(2), 0x1002U);
        EXPECT_TRUE(host.set_register(0xA2080000, 1)) << "the command is over";
    }
}

TEST(ChipBootRom, AgentIsTakenCheckedAndStarted) {
    DownloadHost host;
    ASSERT_TRUE(host.start_agent());
    EXPECT_EQ(host.chip.boot_rom.registers,
              (std::map<uint32_t, uint16_t>{{0xA2080000, 0x10}, {0xA2080030, 0x40}}));
    EXPECT_EQ(host.seen().state, "agent");
    EXPECT_EQ(host.seen().agent_bytes, 1025U);
    host.power(false);
    EXPECT_EQ(host.frame({0x0A, 0}), (Bytes{0xFF, 0xFF}));
    EXPECT_EQ(host.seen().state, "off");
    host.power(true);
    EXPECT_TRUE(host.start_agent()) << "power loss forgets everything";
}

TEST(ChipBootRom, LastByteOfAnOddAgentCountsAsALowByte) {
    DownloadHost host;
    ASSERT_TRUE(host.handshake());
    ASSERT_TRUE(host.echo(0xD7, 1) && host.echo(0x4200000, 4) && host.echo(3, 4) && host.echo(0, 4));
    EXPECT_EQ(host.read_number(2), 0U);
    host.write({1, 2, 3});
    EXPECT_EQ(host.read_number(2), 0x0202U);
}

TEST(ChipBootRom, AgentElsewhereOrOfNoGoodLengthIsRefused) {
    struct Case {
        uint32_t address, length, signature, status;
    };
    for (const Case& wrong :
         {Case{0x4000000, 16, 0, 0x1002}, Case{0x4200000, 0, 0, 0x1003},
          Case{0x4200000, kChipAgentMaxSize + 1, 0, 0x1003}, Case{0x4200000, 16, 1, 0x1003}}) {
        DownloadHost host;
        ASSERT_TRUE(host.handshake());
        EXPECT_TRUE(host.echo(0xD7, 1));
        EXPECT_TRUE(host.echo(wrong.address, 4));
        EXPECT_TRUE(host.echo(wrong.length, 4));
        EXPECT_TRUE(host.echo(wrong.signature, 4));
        EXPECT_EQ(host.read_number(2), wrong.status);
        EXPECT_EQ(host.seen().boot_errors, 1U);
    }
}

TEST(ChipBootRom, JumpNeedsAnAgentAndItsAddress) {
    DownloadHost host;
    ASSERT_TRUE(host.handshake());
    EXPECT_TRUE(host.echo(0xD5, 1));
    EXPECT_TRUE(host.echo(0x4200000, 4));
    EXPECT_EQ(host.read_number(2), 0x1004U);
    EXPECT_TRUE(host.echo(0xD5, 1));
    EXPECT_TRUE(host.echo(0x4000000, 4));
    EXPECT_EQ(host.read_number(2), 0x1002U);
    EXPECT_EQ(host.seen().state, "boot ROM");
}

TEST(ChipBootRom, SpeedAndIdentifierAreAnswered) {
    DownloadHost host;
    ASSERT_TRUE(host.handshake());
    EXPECT_TRUE(host.echo(0xDC, 1));
    EXPECT_TRUE(host.echo(921600, 4));
    EXPECT_EQ(host.read_number(2), 0U);
    host.write({0xE9});
    EXPECT_EQ(host.read(19), (Bytes{0xE9, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0, 0}));
    host.write({0x33});
    EXPECT_EQ(host.read_number(2), 0x1001U) << "no such command";
}

TEST(ChipBootRom, RandomBytesAreAnsweredOrDropped) {
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        DownloadHost host;
        ASSERT_TRUE(host.handshake());
        for (int command = 0; command < 20; ++command) {
            const Bytes starts = {0xD2, 0xDC, 0xD7, 0xD5, 0xE9, 0x00};
            Bytes bytes(1 + random() % 16);
            std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
            bytes[0] = starts[random() % starts.size()];
            host.write(bytes);
            host.read(64);
        }
        EXPECT_EQ(host.seen().state, "boot ROM");
        host.power(false);
        host.power(true);
        ASSERT_TRUE(host.handshake());
    }
}

TEST(ChipBootFault, OneByteOfTheHandshakeIsGarbled) {
    for (uint32_t byte = 1; byte <= 4; ++byte) {
        DownloadHost host;
        host.fault("handshake-bad", std::to_string(byte));
        host.write({0xA0, 0x0A, 0x50, 0x05});
        const Bytes answer = host.read(4);
        for (uint32_t i = 0; i < 4; ++i) {
            const Bytes right = {0x5F, 0xF5, 0xAF, 0xFA};
            EXPECT_EQ(answer[i] == right[i], i + 1 != byte) << byte << " " << i;
        }
        host.power(false);
        host.power(true);
        EXPECT_TRUE(host.handshake()) << "once";
    }
}

TEST(ChipBootFault, OneAnswerIsWrong) {
    std::vector<std::pair<std::string, std::string>> faults = {{"checksum-bad", "once"}};
    for (int echo = 1; echo <= 14; ++echo) {
        faults.emplace_back("echo-bad", std::to_string(echo));
    }
    for (int word = 1; word <= 7; ++word) {
        faults.emplace_back("boot-status", std::to_string(word));
    }
    for (const auto& [name, value] : faults) {
        DownloadHost host;
        host.fault(name, value);
        EXPECT_FALSE(host.start_agent()) << name << value;
        EXPECT_EQ(chip_status(host.chip).faults, std::vector<std::string>{}) << name << value;
        EXPECT_TRUE(name == "echo-bad" || host.seen().state == "boot ROM");
        host.power(false);
        host.power(true);
        EXPECT_TRUE(host.start_agent()) << "once";
    }
}
