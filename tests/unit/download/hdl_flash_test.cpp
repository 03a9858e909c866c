#include "base/stop_request.h"
#include "download/hdl_flash.h"
#include "download/hdl_window.h"
#include "hdl_fakes.h"
#include "support/call_fault.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace {

void answer_all(uint8_t status = 0) {
    g_fakes.on_send = [status](const Bytes& frame) {
        g_fakes.arrives.push_back(
            agent_frame(static_cast<uint16_t>(le_at(frame, 4, 2)), status, le32(le_at(frame, 6, 4))));
    };
}

Bytes block_frame(uint32_t address, const Bytes& data) {
    Bytes filled = data;
    filled.resize(4096, 0xFF);
    return with_crc(Bytes{0x05, 0x5A, 0x0C, 0x10, 0x00, 0x21} + le32(address) + le16(4096) + filled);
}

struct FlashTest : testing::Test {
    void SetUp() override {
        hdl_fakes_reset();
        g_fakes.receive_ms = 1000;
        call_faults = {};
        image.begin_address = 0x8000;
    }
    void TearDown() override {
        call_faults = {};
    }
    void image_holds(const std::string& content) {
        path = dir.write("image.bin", content);
        strcpy(image.name, path.c_str());
    }
    bool write_image() {
        return download_image(&image, &size);
    }
    PrivateDir dir;
    std::string path;
    uint64_t size = 0;
    ImageEntry image = {};
};

using Erase = FlashTest;
using Block = FlashTest;
using Image = FlashTest;
using ImageCheck = FlashTest;

const std::string kNotAligned = "[I] Not-4K-Alignment ( 0 )\n";
const std::string kFilledUp = "[I] Fill up 4-byte. ( 0 )\n";

} // namespace

TEST_F(Erase, ErasesEveryBlockOfThePlan) {
    answer_all();
    EXPECT_TRUE(da_format_flash(0xF000, 0x20000));
    const auto frame = [](const Bytes& address, const Bytes& length) {
        return with_crc(Bytes{0x05, 0x5A, 14, 0, 0x04, 0x21} + address + length);
    };
    EXPECT_EQ(g_fakes.sent,
              (std::vector<Bytes>{frame(le32(0xF000), le32(0x1000)), frame(le32(0x10000), le32(0x10000)),
                                  frame(le32(0x20000), le32(0x10000))}));
    EXPECT_EQ(g_fakes.log.size(), 6U);
}

TEST_F(Erase, NothingToEraseFailsSilently) {
    EXPECT_FALSE(da_format_flash(0x1000, 0));
    EXPECT_EQ(g_fakes.log, Texts{});
    EXPECT_EQ(g_fakes.calls, Texts{});
}

TEST_F(Erase, NoMemoryFails) {
    call_faults.calloc = kEachCall;
    EXPECT_FALSE(da_format_flash(0, 0x10000));
    EXPECT_EQ(g_fakes.log, Texts{"[E] da_format_flash malloc pData fail\n"});
    EXPECT_EQ(g_fakes.calls, Texts{});
}

TEST_F(Erase, AFailedFlowFails) {
    answer_all(1);
    EXPECT_FALSE(da_format_flash(0, 0x10000));
    EXPECT_EQ(hdl_fakes_log_with("[E]"),
              (Texts{"[E] FORMAT_TIMEOUT\n", "[E] format_sliding_window_flow fail\n"}));
}

TEST_F(Block, IsReadFromItsPlaceAndFilledUpWithErasedFlash) {
    const struct {
        std::string content;
        uint32_t address;
        Bytes data;
        Texts log;
    } rows[] = {
        {std::string(4096, 'a') + std::string(4096, 'b') + "c", 0x9000, Bytes(4096, 'b'), {}},
        {std::string(4096, 'a') + "c", 0x9000, {'c'}, {kNotAligned}},
        {"abc", 0xFFFFFFFF, {}, {kNotAligned}}, // after the file
    };
    for (const auto& row : rows) {
        hdl_fakes_reset();
        image_holds(row.content);
        EXPECT_TRUE(download_send_single_block(row.address, &image));
        EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{block_frame(row.address, row.data)});
        EXPECT_EQ(g_fakes.log, row.log);
    }
}

TEST_F(Block, ThatCantBeReadIsNotSent) {
    image_holds(std::string(4096, 'a'));
    const struct {
        const char* what;
        uint32_t address;
        CallFaults faults;
        Texts log;
    } rows[] = {
        {"before the image", 0x7FFF, {}, {}},
        {"no position", 0x8000, {.fseeko = kEachCall}, {}},
        {"neither position nor close",
         0x8000,
         {.fclose = kEachCall, .fseeko = kEachCall},
         {"[E] The file(" + path + ") could not closed.\n"}},
        {"no close",
         0x8000,
         {.fclose = kEachCall},
         {"[E] download_send_single_block The file(" + path + ") could not closed.\n"}},
    };
    for (const auto& row : rows) {
        hdl_fakes_reset();
        call_faults = row.faults;
        EXPECT_FALSE(download_send_single_block(row.address, &image)) << row.what;
        EXPECT_EQ(g_fakes.log, row.log) << row.what;
        EXPECT_EQ(g_fakes.calls, Texts{}) << row.what;
    }
    hdl_fakes_reset();
    strcpy(image.name, "/nowhere/image.bin");
    EXPECT_FALSE(download_send_single_block(0x8000, &image));
    EXPECT_EQ(g_fakes.log, Texts{"[E] can not open /nowhere/image.bin\n"});
}

TEST_F(Image, ABytePastABlockTakesASecondOne) {
    answer_all();
    image_holds(std::string(4096, 'a') + "b");
    EXPECT_TRUE(write_image());
    EXPECT_EQ(size, 4097U);
    EXPECT_EQ(g_fakes.sent,
              (std::vector<Bytes>{block_frame(0x8000, Bytes(4096, 'a')), block_frame(0x9000, {'b'})}));
    EXPECT_EQ(g_fakes.log,
              (Texts{"[I] ########## Download send address(0x8000)\n", "[I] Download resp address(0x8000)\n",
                     "[I] ########## Download send address(0x9000)\n", kNotAligned,
                     "[I] Download resp address(0x9000)\n"}));
}

TEST_F(Image, TwoBytesAreTheLeast) {
    for (const size_t length : {0U, 1U, 2U, 8192U}) {
        hdl_fakes_reset();
        answer_all();
        image_holds(std::string(length, 'a'));
        EXPECT_EQ(write_image(), length > 1) << length;
        EXPECT_EQ(g_fakes.sent.size(), length > 1 ? (length + 4095) / 4096 : 0) << length;
        EXPECT_EQ(
            hdl_fakes_log_with("[E] download_image getFileSize fail, image length smaller than 1 byte.\n")
                .size(),
            length > 1 ? 0U : 1U)
            << length;
    }
}

TEST_F(Image, NoMemoryFails) {
    image_holds("ab");
    call_faults.calloc = kEachCall;
    EXPECT_FALSE(write_image());
    EXPECT_EQ(g_fakes.log, Texts{"[E] download_image malloc pData fail\n"});
}

TEST_F(Image, NoTableIsMadeForMoreThanAnyFlash) {
    image_holds("");
    std::filesystem::resize_file(path, 0x100000001);
    EXPECT_FALSE(write_image());
    EXPECT_EQ(g_fakes.log, Texts{"[E] download_image malloc pData fail\n"});
}

TEST_F(Image, BlocksBeyondTheAddressesAreNotSent) {
    answer_all();
    image_holds(std::string(4097, 'a'));
    image.begin_address = 0xFFFFF000;
    EXPECT_FALSE(write_image());
    EXPECT_EQ(g_fakes.sent.size(), 1U);
    EXPECT_EQ(hdl_fakes_log_with("[E]"), Texts{"[E] download_sliding_window_flow fail\n"});
}

TEST_F(Image, AFailedFlowFails) {
    answer_all(1);
    image_holds("ab");
    EXPECT_FALSE(write_image());
    EXPECT_EQ(g_fakes.log.back(), "[E] download_sliding_window_flow fail\n");
}

TEST_F(Image, AllAreWrittenInTheirOrder) {
    answer_all();
    image_holds("ab");
    ImageEntry both[2] = {image, image};
    both[1].begin_address = 0x20000;
    EXPECT_TRUE(download_all_images(both, 2));
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{block_frame(0x8000, {'a', 'b'}), //
                                                block_frame(0x20000, {'a', 'b'})}));
}

TEST_F(Image, TheFirstFailureStopsAll) {
    answer_all();
    image_holds("ab");
    ImageEntry both[2] = {image, image};
    strcpy(both[0].name, "/nowhere/first.bin");
    EXPECT_FALSE(download_all_images(both, 2));
    EXPECT_EQ(g_fakes.sent.size(), 0U);
    EXPECT_EQ(g_fakes.log.back(), "[E] download /nowhere/first.bin FAILED\n");
    EXPECT_TRUE(download_all_images(both, 0));
}

TEST_F(ImageCheck, SendsAddressSizeAndChecksum) {
    image_holds("abcde");
    g_fakes.on_send = [](const Bytes&) { g_fakes.arrives.push_back(agent_frame(0x211A, 0, le32(0xBC))); };
    EXPECT_TRUE(check_image_crc(&image, 5));
    const uint32_t crc = slow_crc32({'a', 'b', 'c', 'd', 'e', 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{with_crc(Bytes{0x05, 0x5A, 18, 0, 0x1A, 0x21} + le32(0x8000) +
                                                        le32(5) + le32(crc))});
    EXPECT_EQ(g_fakes.calls, (Texts{"send 22 flag 1", "receive 11"}));
    // The agent's status decides, not its CRC.
    EXPECT_EQ(g_fakes.log.back(),
              "[I] check_image_crc done, image name:" + path + ", response_crc=  0x000000BC\n");
}

TEST_F(ImageCheck, AFileThatTakesLongToReadIsNoLackOfProgressWhileAStopWaits) {
    image_holds("abcde");
    call_faults.at_read = [] { g_fakes.now += 3000; };
    g_fakes.receive_ms = 50;
    g_fakes.on_receive = [receives = 0]() mutable {
        if (++receives == 2) {
            g_fakes.arrives.push_back(agent_frame(0x211A, 0, le32(0xBC)));
        }
    };
    const StopRequest stop;
    EXPECT_TRUE(check_image_crc(&image, 5));
}

TEST_F(ImageCheck, AnyOtherCodeFails) {
    image_holds("abcd");
    EXPECT_FALSE(check_image_crc(&image, 4));
    EXPECT_EQ(g_fakes.sent.size(), 1U);
    EXPECT_EQ(g_fakes.log, Texts{"[E] check_image_crc error, ErrorCode:1, res_crc=  0x00000000\n"});
    g_fakes.log.clear();
    answer_all(5);
    EXPECT_FALSE(check_image_crc(&image, 4));
    EXPECT_EQ(g_fakes.log, Texts{"[E] check_image_crc error, ErrorCode:3, res_crc=  0x00000000\n"});
}

TEST_F(ImageCheck, AFileThatCantBeLookedAtIsNotAskedForAndNotSaidToHaveChanged) {
    image_holds("abcde");
    call_faults.fseeko = 2; // after those of its size and its only chunk
    EXPECT_FALSE(check_image_crc(&image, 5));
    EXPECT_EQ(g_fakes.log, Texts({kFilledUp, "[E] image file can't be looked at: " + path + "\n"}));
    EXPECT_EQ(g_fakes.sent.size(), 0U);
}

TEST_F(ImageCheck, AFileThatChangedSinceItWasWrittenIsNotAskedFor) {
    answer_all();
    for (const char* now : {"", "abcd", "abcdef"}) {
        image_holds(now);
        EXPECT_FALSE(check_image_crc(&image, 5)) << now;
        EXPECT_EQ(g_fakes.log.back(), "[E] image file changed during the download: " + path + "\n");
    }
    std::filesystem::remove(path);
    EXPECT_FALSE(check_image_crc(&image, 5));
    EXPECT_EQ(g_fakes.log.back(), "[E] image file changed during the download: " + path + "\n");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(check_image_crc(&image, 5));
    EXPECT_EQ(g_fakes.sent.size(), 0U);
}
