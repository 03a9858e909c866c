#include "download/hdl_readback.h"
#include "download/hdl_settings.h"
#include "hdl_fakes.h"
#include "support/call_fault.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

namespace {

Bytes piece(char fill) {
    return Bytes(2048, static_cast<uint8_t>(fill));
}

Bytes data_response(uint16_t id, const Bytes& data, uint32_t damage = 0) {
    return agent_frame(id, 0, le32(0x77) + le32(slow_crc32(data) ^ damage) + data);
}

Bytes readback_command(uint32_t address) {
    return with_crc(Bytes{0x05, 0x5A, 12, 0, 0x01, 0x21} + le32(address) + le16(2048));
}

Bytes otp_command(uint32_t address, uint32_t length) {
    return with_crc(Bytes{0x05, 0x5A, 14, 0, 0x0D, 0x21} + le32(address) + le32(length));
}

struct ReadbackTest : testing::Test {
    void SetUp() override {
        hdl_fakes_reset();
        call_faults = {};
    }
    void TearDown() override {
        call_faults = {};
    }
    void answer(const Bytes& frame) {
        g_fakes.on_send = [frame](const Bytes&) { g_fakes.arrives.push_back(frame); };
    }
    // Data that tell from which address they are: its third hexadecimal digit as a letter.
    void answer_by_address() {
        g_fakes.on_send = [](const Bytes& frame) {
            const auto letter = static_cast<char>('a' + (le_at(frame, 6, 4) >> 8U) % 16);
            g_fakes.arrives.push_back(data_response(0x2101, piece(letter)));
        };
    }
    std::string dump() const {
        return dir.read("dump");
    }
    PrivateDir dir;
    const std::string path = (dir.path / "dump").string();
};

using Readback = ReadbackTest;
struct Otp : ReadbackTest {
    void SetUp() override {
        ReadbackTest::SetUp();
        g_download_settings.link_type = HDL_LINK_UART; // an SPI link is asked for no byte
    }
};
using Dump = ReadbackTest;

} // namespace

TEST_F(Readback, AppendsAPieceToTheFile) {
    dir.write("dump", "before");
    answer(data_response(0x2101, piece('x')));
    EXPECT_TRUE(hdl_readback_kite(path.c_str(), 0x10800));
    EXPECT_EQ(dump(), "before" + std::string(2048, 'x'));
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{readback_command(0x10800)});
    EXPECT_EQ(g_fakes.calls, (Texts{"send 16 flag 1", "receive 2063"}));
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_readback_kite res done: addr=0x10800\n"});
}

TEST_F(Readback, OtherFramesAndFailuresAreWaitedOver) {
    g_fakes.on_send = [](const Bytes&) {
        g_fakes.arrives = {agent_frame(0x2104, 0, le32(1)), agent_frame(0x2101, 1),
                           data_response(0x2101, piece('x'))};
    };
    EXPECT_TRUE(hdl_readback_kite(path.c_str(), 0));
    EXPECT_EQ(g_fakes.sent.size(), 1U);
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_readback_kite res done: addr=0x0\n"});
}

TEST_F(Readback, AWrongChecksumIsToldAndWaitedOver) {
    g_fakes.on_send = [](const Bytes&) {
        g_fakes.arrives = {data_response(0x2101, piece('y'), 1), data_response(0x2101, piece('x'))};
    };
    EXPECT_TRUE(hdl_readback_kite(path.c_str(), 0x800));
    EXPECT_EQ(dump(), std::string(2048, 'x'));
    char expected[128];
    const uint32_t crc = slow_crc32(piece('y'));
    snprintf(expected, sizeof expected,
             "[I] hdl_readback_kite CRC fail: addr=0x800, crc_cal=0x%X, crc_resp=0x%X\n", crc, crc ^ 1);
    EXPECT_EQ(g_fakes.log, (Texts{expected, "[I] hdl_readback_kite res done: addr=0x800\n"}));
}

TEST_F(Readback, FewerDataAreCheckedAsIfZeroesFollowed) {
    g_fakes.on_send = [](const Bytes&) {
        g_fakes.arrives = {
            data_response(0x2101, piece('y'), 1), data_response(0x2101, Bytes(100, 'x')),
            agent_frame(0x2101, 0,
                        le32(0) + le32(slow_crc32(Bytes(100, 'x') + Bytes(1948))) + Bytes(100, 'x'))};
    };
    EXPECT_TRUE(hdl_readback_kite(path.c_str(), 0));
    EXPECT_EQ(dump(), std::string(100, 'x') + std::string(1948, '\0'));
}

TEST_F(Readback, ThreeAttemptsOfASecondEach) {
    for (const bool answered : {false, true}) { // the third
        hdl_fakes_reset();
        g_fakes.on_send = [answered](const Bytes&) {
            if (answered && g_fakes.sent.size() == 3) {
                g_fakes.arrives = {data_response(0x2101, piece('x'))};
            }
        };
        const int64_t start = g_fakes.now;
        EXPECT_EQ(hdl_readback_kite(path.c_str(), 0x1800), answered);
        EXPECT_EQ(g_fakes.now - start, answered ? 2000 : 3000);
        EXPECT_EQ(g_fakes.sent, std::vector<Bytes>(3, readback_command(0x1800)));
        Texts expected(3, "[I] hdl_readback_kite res retry: addr=0x1800\n");
        if (answered) {
            expected[2] = "[I] hdl_readback_kite res done: addr=0x1800\n";
        }
        EXPECT_EQ(g_fakes.log, expected);
        EXPECT_EQ(std::filesystem::exists(path), answered);
    }
}

TEST_F(Readback, AChecksumThatNeverFitsFailsAfterThreeAttempts) {
    const int64_t start = g_fakes.now;
    g_fakes.on_receive = [] {
        g_fakes.now += 333; // three of them are no second yet
        g_fakes.arrives.push_back(data_response(0x2101, piece('y'), 1));
    };
    EXPECT_FALSE(hdl_readback_kite(path.c_str(), 0));
    EXPECT_EQ(g_fakes.now - start, 3 * 4 * 333);
    EXPECT_EQ(g_fakes.sent.size(), 3U);
    EXPECT_EQ(hdl_fakes_log_with("[I] hdl_readback_kite CRC fail: addr=0x0").size(), 12U);
    EXPECT_EQ(hdl_fakes_log_with("[I] hdl_readback_kite res retry: addr=0x0").size(), 3U);
    EXPECT_EQ(g_fakes.log.size(), 15U);
}

TEST_F(Readback, AnAttemptLastsAsLongWhenTheClockIsSet) {
    g_fakes.on_receive = [receives = 0]() mutable {
        g_fakes.now += 250;
        ++receives;
        g_fakes.set += receives == 2 ? -3'600'000 : receives == 6 ? 3'600'000 : 0;
        g_fakes.arrives.push_back(data_response(0x2101, piece('y'), 1));
    };
    EXPECT_FALSE(hdl_readback_kite(path.c_str(), 0));
    EXPECT_EQ(hdl_fakes_log_with("[I] hdl_readback_kite CRC fail: addr=0x0").size(), 3U * 4);
}

TEST_F(Readback, MoreDataThanAskedForAreRefused) {
    g_download_settings.link_type = HDL_LINK_UART;
    answer(data_response(0x2101, Bytes(2049, 'x')));
    EXPECT_FALSE(hdl_readback_kite(path.c_str(), 0));
}

TEST_F(Readback, OnlyARegularFileIsWrittenOrReplaced) {
    answer(data_response(0x2101, piece('x')));
    EXPECT_FALSE(hdl_readback_kite("/nowhere/dump", 0));
    EXPECT_EQ(g_fakes.log, Texts{"[E] can not open /nowhere/dump\n"});
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(hdl_readback_to_file(path.c_str(), 0, 2048));
    EXPECT_EQ(g_fakes.log.at(1), "[E] can not open " + path + "\n");
}

TEST_F(Readback, AFileThatTakesNoPieceFails) {
    answer(data_response(0x2101, piece('x')));
    call_faults.fwrite = 0;
    EXPECT_FALSE(hdl_readback_kite(path.c_str(), 0));
    EXPECT_EQ(g_fakes.log, Texts{});
    call_faults.fclose = 0;
    EXPECT_FALSE(hdl_readback_kite(path.c_str(), 0));
    EXPECT_EQ(g_fakes.log, Texts{"[E] hdl_readback_kite The file(" + path + ") could not closed.\n"});
}

TEST_F(Otp, AppendsAPieceToTheFile) {
    answer(data_response(0x210D, piece('o')));
    EXPECT_TRUE(hdl_read_otp_kite(path.c_str(), 0x100, 2048));
    EXPECT_EQ(dump(), std::string(2048, 'o'));
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{otp_command(0x100, 2048)});
    EXPECT_EQ(g_fakes.calls, (Texts{"send 18 flag 1", "receive 4112"}));
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_readback_kite res done: addr=0x100\n"});
}

TEST_F(Otp, AsksAnSpiLinkForNothing) {
    g_download_settings.link_type = HDL_LINK_SPI;
    EXPECT_FALSE(hdl_read_otp_kite(path.c_str(), 0, 2048));
    EXPECT_EQ(g_fakes.calls.at(1), "receive 0");
}

TEST_F(Otp, AShorterLengthIsCheckedAndWrittenButFails) {
    for (const Bytes& behind : {Bytes{}, Bytes(5, 'p')}) { // no part of the checksum
        dir.write("dump", "");
        answer(agent_frame(0x210D, 0, le32(0) + le32(slow_crc32(Bytes(16, 'o'))) + Bytes(16, 'o') + behind));
        EXPECT_FALSE(hdl_read_otp_kite(path.c_str(), 0, 16));
        EXPECT_EQ(dump(), std::string(16, 'o'));
        EXPECT_EQ(g_fakes.log, Texts{});
    }
}

TEST_F(Otp, AFileThatCantBeClosedIsToldByWhatWasWritten) {
    answer(data_response(0x210D, piece('o')));
    call_faults.fclose = kEachCall;
    EXPECT_FALSE(hdl_read_otp_kite(path.c_str(), 0, 2048));
    EXPECT_EQ(g_fakes.log, Texts{"[E] The file(" + path + ") could not closed.\n"});
    g_fakes.log.clear();
    call_faults.fwrite = kEachCall;
    EXPECT_FALSE(hdl_read_otp_kite(path.c_str(), 0, 2048));
    EXPECT_EQ(g_fakes.log, Texts{"[E] hdl_read_otp_kite The file(" + path + ") could not closed.\n"});
}

TEST_F(Dump, IsMadeOfPiecesAndReplacesAnEarlierFile) {
    dir.write("dump", "old");
    answer_by_address();
    EXPECT_TRUE(hdl_readback_to_file(path.c_str(), 0x10000, 4096));
    EXPECT_EQ(dump(), std::string(2048, 'a') + std::string(2048, 'i'));
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{readback_command(0x10000), readback_command(0x10800)}));
    EXPECT_EQ(g_fakes.log, (Texts{"[I] The file(" + path + ") is deleted successfully.\n",
                                  "[I] hdl_readback_kite res done: addr=0x10000\n",
                                  "[I] hdl_readback_kite res done: addr=0x10800\n"}));
}

TEST_F(Dump, IsRoundedUpToAWholePiece) {
    answer_by_address();
    EXPECT_TRUE(hdl_readback_to_file(path.c_str(), 0, 2049));
    EXPECT_EQ(dump().size(), 4096U);
    hdl_fakes_reset();
    EXPECT_TRUE(hdl_readback_to_file(path.c_str(), 0x1000, 0));
    EXPECT_TRUE(hdl_read_otp_to_file(path.c_str(), 0x1000, 0));
    EXPECT_EQ(g_fakes.calls, Texts{});
}

TEST_F(Dump, EndsWithTheAddresses) {
    answer_by_address();
    EXPECT_TRUE(hdl_readback_to_file(path.c_str(), 0xFFFFF800, 0x1000));
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{readback_command(0xFFFFF800)});
}

TEST_F(Dump, AFailedPieceEndsIt) {
    EXPECT_FALSE(hdl_readback_to_file(path.c_str(), 0x800, 4096));
    EXPECT_EQ(g_fakes.sent.size(), 3U);
    EXPECT_EQ(g_fakes.log.back(), "[E] hdl_readback_kite addr=0x00000800 fail!\n");
}

TEST_F(Dump, AnOldFileThatCantBeClosedOrDeletedFails) {
    for (const bool closes : {false, true}) {
        hdl_fakes_reset();
        dir.write("dump", "old");
        (closes ? call_faults.remove : call_faults.fclose) = kEachCall;
        EXPECT_FALSE(hdl_readback_to_file(path.c_str(), 0, 4096));
        EXPECT_FALSE(hdl_read_otp_to_file(path.c_str(), 0, 4096));
        EXPECT_EQ(g_fakes.log, Texts(2, "[E] The file(" + path +
                                            (closes ? ") is not deleted.\n" : ") could not closed.\n")));
        EXPECT_EQ(g_fakes.calls, Texts{});
        EXPECT_EQ(dump(), "old");
        call_faults = {};
    }
}

TEST_F(Dump, OfOtpIsAskedForWithTheWholeLengthAtEveryStep) {
    g_download_settings.link_type = HDL_LINK_UART;
    dir.write("dump", "old");
    answer(data_response(0x210D, piece('o')));
    EXPECT_TRUE(hdl_read_otp_to_file(path.c_str(), 0x100, 2048));
    EXPECT_EQ(dump(), std::string(2048, 'o'));
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{otp_command(0x100, 2048)});
    EXPECT_EQ(g_fakes.log.front(), "[I] The file(" + path + ") is deleted successfully.\n");
}

TEST_F(Dump, OfOtpFailsWithItsOwnLine) {
    EXPECT_FALSE(hdl_read_otp_to_file(path.c_str(), 0x100, 2049));
    EXPECT_EQ(g_fakes.log, Texts{"[E] hdl_read_otp_kite addr=0x00000100 fail!\n"});
    EXPECT_EQ(g_fakes.calls, Texts{}); // the length is more than one request can carry
}
