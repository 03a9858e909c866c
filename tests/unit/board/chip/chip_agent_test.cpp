// The download agent and its flash.
#include "chip_download_wire.h"

#include <gtest/gtest.h>
#include <numeric>
#include <random>

namespace {

constexpr uint32_t kBase = 0x08000000;

struct AgentHost : DownloadHost {
    explicit AgentHost(ChipOptions options = small()) : DownloadHost(std::move(options)) {
        EXPECT_TRUE(start_agent());
    }
};

Bytes pattern(size_t size) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

Bytes flash(const DownloadHost& host, uint32_t address, uint32_t length) {
    return chip_flash_read(host.chip.flash, address, length);
}

} // namespace

TEST(ChipAgent, TellsAddressSizeAndIdentifierOfTheFlash) {
    AgentHost host;
    EXPECT_EQ(host.command(0x210E, {}, false, 11), (Bytes{5, '[', 7, 0, 0x0E, 0x21, 0, 0, 0, 0, 8}));
    EXPECT_EQ(host.command(0x210F, {}, false, 11), (Bytes{5, '[', 7, 0, 0x0F, 0x21, 0, 0, 0, 4, 0}));
    EXPECT_EQ(host.command(0x2110, {}, false, 10), (Bytes{5, '[', 6, 0, 0x10, 0x21, 0, 0x5A, 0x60, 0x15}));
    EXPECT_EQ(host.ask(0x2115, host.numbers({921600}), false).identifier, 0x2115);
    EXPECT_EQ(host.ask(0x2116, {1}, false).identifier, 0x2116);
    EXPECT_EQ(host.ask(0x211B, {0}, true).payload, Bytes{0});
    EXPECT_EQ(host.ask(0x211C, {0}, true).status, 0);
}

TEST(ChipAgent, ErasesBothSizesOfBlocks) {
    AgentHost host;
    for (const uint32_t at : {0x0000U, 0x1000U, 0x10000U, 0x1F000U, 0x20000U}) {
        ASSERT_EQ(host.write_block(kBase + at, Bytes(4096, 0)), 0);
    }
    EXPECT_EQ(host.erase(kBase + 0x1000, 4096), 0);
    EXPECT_EQ(flash(host, kBase, 4096), Bytes(4096, 0));
    EXPECT_EQ(flash(host, kBase + 0x1000, 4096), Bytes(4096, 0xFF));
    EXPECT_EQ(host.erase(kBase + 0x10000, 65536), 0);
    EXPECT_EQ(flash(host, kBase + 0x10000, 65536), Bytes(65536, 0xFF));
    EXPECT_EQ(flash(host, kBase + 0x20000, 4096), Bytes(4096, 0));
}

TEST(ChipAgent, EraseMayReachPastTheEndButNotBeginThere) {
    ChipOptions options = DownloadHost::small();
    options.flash_size = 0x11000;
    AgentHost host(options);
    EXPECT_EQ(host.erase(kBase + 0x10000, 65536), 0);
    EXPECT_EQ(host.erase(kBase + 0x11000, 4096), kChipAgentBadPlace);
    EXPECT_EQ(host.erase(kBase - 0x1000, 4096), kChipAgentBadPlace);
    EXPECT_EQ(host.erase(kBase + 0x1000, 65536), kChipAgentBadPlace) << "not on its border";
    EXPECT_EQ(host.erase(kBase, 8192), kChipAgentBadPlace) << "no size of a block";
}

TEST(ChipAgent, WritingOnlyClearsBits) {
    AgentHost host;
    EXPECT_EQ(host.write_block(kBase, {0xF0}), 0);
    EXPECT_EQ(host.write_block(kBase, {0x30}), 0) << "fewer bits need no erase";
    EXPECT_EQ(host.write_block(kBase, {0x3F}), kChipAgentUnerased);
    EXPECT_EQ(flash(host, kBase, 2), (Bytes{0x30, 0xFF}));
    EXPECT_EQ(host.seen().commands_failed, 1U);
}

TEST(ChipAgent, WriteOutsideOfTheFlashIsRefused) {
    AgentHost host;
    EXPECT_EQ(host.write_block(kBase + 0x40000, {0}), kChipAgentBadPlace);
    EXPECT_EQ(host.write_block(kBase + 0x3F001, {0}), kChipAgentBadPlace);
    EXPECT_EQ(host.write_block(0xFFFFF000, {0}), kChipAgentBadPlace);
    EXPECT_EQ(host.write_block(kBase + 0x3F000, {0}), 0);
}

TEST(ChipAgent, BadCrcAndBadSizesChangeNothing) {
    AgentHost host;
    Bytes payload = host.numbers({kBase, 4096, 0});
    EXPECT_EQ(host.ask(0x2104, payload, false).status, kChipAgentBadCrc);
    EXPECT_EQ(host.ask(0x2104, host.numbers({kBase}), true).status, kChipAgentBadRequest);
    EXPECT_EQ(host.ask(0x21EE, {}, false).status, kChipAgentBadRequest);
    EXPECT_EQ(host.seen().blocks_erased, 0U);
    EXPECT_TRUE(host.seen().bootable);
}

TEST(ChipAgent, ImageCheckTellsTheFlashsCrc) {
    AgentHost host;
    ASSERT_EQ(host.write_block(kBase, {'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0);
    EXPECT_EQ(host.check(kBase, {'1', '2', '3', '4', '5', '6', '7', '8', '9'}).status, 0);
    const AgentResponse response = host.check(kBase, {'1', '2', '3', '4'});
    EXPECT_EQ(response.status, 0) << "a part of it";
    EXPECT_EQ(response.payload, host.numbers({0x9BE3E0A3})) << "of 1234";
    const AgentResponse differing = host.check(kBase, {'1', '2', '3', '5'});
    EXPECT_EQ(differing.status, kChipAgentBadImage);
    EXPECT_EQ(differing.payload, host.numbers({0x9BE3E0A3}));
    EXPECT_EQ(host.ask(0x211A, host.numbers({kBase + 0x3FFFC, 5, 0}), true).status, kChipAgentBadPlace);
    EXPECT_EQ(host.ask(0x211A, host.numbers({kBase, 0xFFFFFFFF, 0}), true).status, kChipAgentBadPlace);
}

TEST(ChipAgent, FinishWithoutAGoodCheckOfEverythingLeavesNoFirmware) {
    AgentHost host;
    ASSERT_EQ(host.write_block(kBase, {1}), 0);
    ASSERT_EQ(host.write_block(kBase + 0x1000, {2}), 0);
    ASSERT_EQ(host.check(kBase, {1}).status, 0);
    EXPECT_EQ(host.finish(), kChipAgentUnchecked);
    EXPECT_EQ(host.seen().result, "unchecked");
    EXPECT_EQ(host.ask(0x210E, {}, false).identifier, 0) << "takes no more commands";
    host.power(false);
    host.power(true);
    EXPECT_EQ(host.seen().state, "no firmware");
}

TEST(ChipAgent, FinishWithoutAnyWriteKeepsTheFirmware) {
    AgentHost host;
    EXPECT_EQ(host.finish(), 0);
    host.power(false);
    host.power(true);
    EXPECT_EQ(host.seen().state, "firmware");
}

TEST(ChipAgent, ReadsBackFlashAndOtp) {
    AgentHost host;
    ASSERT_EQ(host.write_block(kBase, pattern(2048)), 0);
    Bytes payload = host.numbers({kBase});
    payload.insert(payload.end(), {0x00, 0x08});
    const AgentResponse back = host.ask(0x2101, payload, true);
    ASSERT_EQ(back.payload.size(), 8U + 2048U);
    EXPECT_EQ(Bytes(back.payload.begin() + 8, back.payload.end()), pattern(2048));
    const AgentResponse otp = host.ask(0x210D, host.numbers({0x10, 4}), true);
    EXPECT_EQ(otp.payload, (Bytes{0x10, 0, 0, 0, 0xC9, 0x70, 0xF3, 0x90, 0x10, 0x11, 0x12, 0x13}));
    EXPECT_EQ(host.ask(0x210D, host.numbers({4095, 2}), true).status, kChipAgentBadPlace);
}

TEST(ChipAgent, BytesBeforeAFrameAndImpossibleLengthsAreSkipped) {
    AgentHost host;
    host.write({0x00, 0x05, 0x05, 0x5B, 0x05, 0x5A, 0xFF, 0xFF, 0, 0, 0x05, 0x5A, 0x00, 0x00, 0, 0});
    EXPECT_EQ(host.ask(0x210F, {}, false).identifier, 0x210F);
}

TEST(ChipAgent, FrameMayComeInPieces) {
    AgentHost host;
    for (const uint8_t byte : Bytes{0x05, 0x5A, 0x02, 0x00, 0x0F}) {
        host.write({byte});
        EXPECT_EQ(host.read(1), Bytes{0});
    }
    host.write({0x21});
    EXPECT_EQ(host.read(4), (Bytes{5, '[', 7, 0}));
}

TEST(ChipAgent, RandomBytesAreAnsweredOrDropped) {
    AgentHost host;
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        Bytes bytes = {
            0x05, 0x5A, static_cast<uint8_t>(random() % 32), 0, static_cast<uint8_t>(random() % 0x20), 0x21};
        if (bytes[4] == 0x06) {
            bytes[4] = 0; // not a finish, which ends it
        }
        while (bytes.size() < 40) {
            bytes.push_back(static_cast<uint8_t>(random()));
        }
        host.write(bytes);
        host.read(4095);
    }
    host.write(Bytes(4095)); // ends a frame that is still awaited
    host.read(4095);
    EXPECT_EQ(host.ask(0x210F, {}, false).identifier, 0x210F);
    EXPECT_EQ(chip_status(host.chip).violations, 0U);
}

TEST(ChipAgentFault, ResponseIsLostLateOrTwice) {
    AgentHost host;
    host.fault("response-lost", "once@erase");
    EXPECT_EQ(host.ask(0x210F, {}, false).identifier, 0x210F);
    EXPECT_EQ(host.ask(0x2104, host.numbers({kBase, 4096}), true).identifier, 0);
    EXPECT_EQ(host.ask(0x2104, host.numbers({kBase, 4096}), true).identifier, 0x2104);
    EXPECT_EQ(host.seen().blocks_erased, 2U) << "the work was done both times";

    host.fault("response-late", "1500@size");
    EXPECT_EQ(host.ask(0x210F, {}, false).identifier, 0);
    host.now_us += 1500000;
    EXPECT_EQ(host.read(11), (Bytes{5, '[', 7, 0, 0x0F, 0x21, 0, 0, 0, 4, 0}));

    host.fault("response-twice", "every:2");
    const Bytes first = host.command(0x210E, {}, false, 22);
    EXPECT_EQ(Bytes(first.begin() + 11, first.end()), Bytes(11));
    const Bytes second = host.command(0x210E, {}, false, 22);
    EXPECT_TRUE(std::equal(second.begin(), second.begin() + 11, second.begin() + 11));
}

TEST(ChipAgentFault, LogNotificationHasItsTextBehindSixBytes) {
    AgentHost host;
    host.fault("agent-log", "once");
    EXPECT_EQ(host.command(0x210F, {}, false, 21), (Bytes{5, ']', 17,  0,   0x10, 0x0F, 0,   0,   0,   0,  0,
                                                          0, 'd', 'o', 'n', 'e',  ':',  ' ', '0', 'x', 'F'}));
}

TEST(ChipAgentFault, ResponseTellsAFailure) {
    AgentHost host;
    host.fault("response-status", "2@check");
    EXPECT_EQ(host.ask(0x210F, {}, false).status, 0);
    EXPECT_NE(host.check(kBase, {0xFF}).status, 0);
    EXPECT_NE(host.check(kBase, {0xFF}).status, 0);
    EXPECT_EQ(host.check(kBase, {0xFF}).status, 0);
}

TEST(ChipAgentFault, PowerFailsInTheMiddleOfAWrite) {
    AgentHost host;
    host.fault("power-loss", "2@write");
    EXPECT_EQ(host.write_block(kBase, Bytes(4096, 0)), 0);
    Bytes payload = host.numbers({kBase + 4096});
    payload.insert(payload.end(), {0x00, 0x10});
    payload.insert(payload.end(), 4096, 0);
    Bytes frame = {0x05, 0x5A, 0x0C, 0x10, 0x00, 0x21};
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.insert(frame.end(), 4, 0);
    host.write(Bytes(frame.begin(), frame.begin() + 4095));
    host.write(Bytes(frame.begin() + 4095, frame.end()));
    EXPECT_EQ(host.seen().state, "power lost");
    EXPECT_EQ(host.seen().result, "cut off");
    EXPECT_EQ(flash(host, kBase + 4096, 2048), Bytes(2048, 0));
    EXPECT_EQ(flash(host, kBase + 6144, 2048), Bytes(2048, 0xFF)) << "half of the block";
    EXPECT_EQ(host.frame({0x0A, 0}), (Bytes{0xFF, 0xFF}));
    host.power(false);
    host.power(true);
    EXPECT_EQ(host.seen().state, "no firmware");
    EXPECT_TRUE(host.start_agent());
}

TEST(ChipDownloadFault, FaultsInForceAreTold) {
    DownloadHost host;
    const std::vector<std::pair<std::string, std::string>> faults = {
        {"asleep", "on"},          {"boot-silent", "on"},         {"handshake-bad", "2:3"},
        {"echo-bad", "4"},         {"boot-status", "5"},          {"checksum-bad", "always"},
        {"response-lost", "2"},    {"response-twice", "every:3"}, {"agent-log", "1@write"},
        {"response-late", "9@id"}, {"power-loss", "7@agent"},
    };
    std::vector<std::string> expected;
    for (const auto& [name, value] : faults) {
        host.fault(name, value);
        expected.push_back(name + " " + value);
    }
    EXPECT_EQ(chip_status(host.chip).faults, expected);
    for (const auto& [name, value] : faults) {
        host.fault(name, "off");
    }
    EXPECT_EQ(chip_status(host.chip).faults, std::vector<std::string>{});
}
