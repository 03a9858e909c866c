// The daemon's log of a firmware download, line by line, and what is shown of it.
#include "client/download_log.h"
#include "client/download_view.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using std::string;

std::optional<uint64_t> size_of(const string& path) {
    return path == "/load/a.bin" ? std::optional<uint64_t>(10000) : std::nullopt;
}

const string kStamps = "2024-05-01 12:00:00.123 [I][   1.234] ";

struct DownloadLog : testing::Test {
    bool is_own(const string& line) {
        return download_log_line(progress, line, size_of);
    }
    void info(const string& text) {
        EXPECT_TRUE(download_log_line(progress, "2024-05-01 12:00:00.123 [I][   1.234] " + text, size_of));
    }
    void error(const string& text) {
        EXPECT_TRUE(download_log_line(progress, "2024-05-01 12:00:00.123 [E][   1.234] " + text, size_of));
    }
    void start() {
        info("========== Download start ========");
        info("image count=2");
        info("file name=/load/a.bin");
        info("begin_address:[0x8000000]=> 0x8000000");
        info("file name=/load/b.bin");
        info("begin_address:[0x8010000]=> 0x8010000");
    }
    void reach_agent() {
        start();
        info("Please reboot chip again:");
        info("========== Handshake pass ==========");
    }
    void reach_erase() {
        reach_agent();
        info("########## Flash address: 0x8000000");
        info("########## Flash size: 0x200000");
        info("########## Format send address(0x8000000)");
    }
    void reach_write() {
        reach_erase();
        info("Format time: 10 ms");
    }
    string step() const {
        return download_view_step(progress);
    }

    DownloadProgress progress;
};

} // namespace

TEST_F(DownloadLog, OtherLinesAreNone) {
    start();
    for (const char* line :
         {"", "[LOCSERV] INF: location_service_download", "[I]UID:00:01", "The FW load directory is: /x",
          "[LOCSERV] ERR: recv error", "[LOCSERV] ERR: [i2c]x", "[spi]x",
          "2024-05-01 12:00:00.123 [I][   1.234", "far too long for a time of day [E][   1.234] text"}) {
        EXPECT_FALSE(download_log_line(progress, line, size_of)) << line;
    }
    EXPECT_EQ(progress.error, "");
}

TEST_F(DownloadLog, LinesBeforeTheStartAreOfAnotherDownload) {
    EXPECT_FALSE(is_own("[LOCSERV] ERR: [spi]can't send spi message"));
    EXPECT_FALSE(progress.others) << "positioning has such lines too";
    EXPECT_FALSE(is_own(kStamps + "Format time: 10 ms"));
    EXPECT_FALSE(is_own(" [E][   1.234] FORMAT_TIMEOUT"));
    EXPECT_FALSE(is_own(kStamps + "========== Download Finish ========"));
    EXPECT_TRUE(progress.others);
    EXPECT_FALSE(progress.begun);
    EXPECT_EQ(progress.phase, DownloadPhase::kWaiting);
    EXPECT_EQ(progress.error, "");
    start();
    EXPECT_TRUE(progress.others);
    EXPECT_TRUE(progress.begun);
    EXPECT_EQ(progress.images, 2U);
}

TEST_F(DownloadLog, ErrorsOfTheDeviceCountWithinADownload) {
    start();
    EXPECT_TRUE(is_own("[LOCSERV] ERR: [spi]location_spi_init, open fail\r"));
    info("========== Download Fail ========");
    EXPECT_EQ(progress.error, "[spi]location_spi_init, open fail");
    EXPECT_NE(download_advice(progress.error).find("'SPI port path='"), string::npos);
    EXPECT_EQ(download_advice("[spi]can't send spi message"), download_advice("[SPIM] x"));
    EXPECT_FALSE(is_own("[LOCSERV] ERR: [spi]can't send spi message")) << "behind the end";
}

TEST_F(DownloadLog, MissingTimeOfDayIsNoMatter) {
    start();
    EXPECT_TRUE(download_log_line(progress, " [E][   1.234] DA len is zero!\r", size_of));
    EXPECT_EQ(progress.error, "DA len is zero!");
}

TEST_F(DownloadLog, PhasesFollowEachOther) {
    EXPECT_EQ(step(), "writing firmware");
    start();
    EXPECT_EQ(progress.images, 2U);
    const std::pair<const char*, const char*> rows[] = {
        {"Please reboot chip again:", "handshake"},
        {"========== Handshake pass ==========", "agent"},
        {"########## Format send address(0x8000000)", "erase"},
        {"Format time: 10 ms", "write image 1 of 2 (a.bin)"},
        {"download /load/a.bin PASS", "write image 2 of 2 (b.bin)"},
        {"download /load/b.bin PASS", "write image 2 of 2 (b.bin)"},
        {"Download time: 10 ms", "check image 1 of 2 (a.bin)"},
        {"check_image_crc /load/a.bin PASS", "check image 2 of 2 (b.bin)"},
        {"Check image crc time: 10 ms", "finish"},
        {"========== Download Finish ========", "done"}};
    for (const auto& [line, shown] : rows) {
        info(line);
        EXPECT_EQ(step(), shown) << line;
    }
    EXPECT_EQ(progress.phase, DownloadPhase::kDone);
}

TEST_F(DownloadLog, NextDownloadIsNotThisOne) {
    reach_write();
    error("download_sliding_window_flow TIMEOUT");
    info("========== Download Fail ========");
    EXPECT_EQ(progress.phase, DownloadPhase::kFailed);
    EXPECT_FALSE(is_own(kStamps + "========== Download start ========"));
    EXPECT_FALSE(is_own(kStamps + "========== Download Finish ========"));
    EXPECT_EQ(progress.phase, DownloadPhase::kFailed);
    EXPECT_EQ(progress.error, "download_sliding_window_flow TIMEOUT");
    EXPECT_FALSE(progress.others);
}

TEST_F(DownloadLog, StartBehindADownloadThatWasCutOffStartsAnew) {
    reach_write();
    error("download_sliding_window_flow TIMEOUT");
    info("========== Download start ========");
    EXPECT_EQ(progress.phase, DownloadPhase::kWaiting);
    EXPECT_EQ(progress.error, "");
    EXPECT_TRUE(progress.list.empty());
    EXPECT_TRUE(progress.begun);
}

TEST_F(DownloadLog, AgentsUploadCountsToItsAnnouncedLength) {
    reach_agent();
    info("echoU32 Send 0xA2080000"); // a register's
    info("echoU32 Send 0x1");
    EXPECT_FALSE(progress.total);
    info("echoU8 Send 0xD7");
    info("echoU32 Send 0x4200000");
    info("echoU32 Send 0x801");
    info("echoU32 Send 0x0");
    info("SEND 1024 bytes OK,total 1024");
    EXPECT_EQ(progress.total, 2049U);
    EXPECT_EQ(progress.done, 1024U);
}

TEST_F(DownloadLog, EraseCountsEachBlockByItsSizeToTheFlashesEnd) {
    const struct {
        const char* address; // of the flash
        const char* size;
        std::vector<std::pair<const char*, uint64_t>> responses; // address of a block, bytes done
        uint64_t total;
    } rows[] = {{"0x8000000",
                 "0x200000",
                 {{"0x8010000", 0x20000}, {"0x7FFFFFF", 0x20000}},
                 0x200000}, // outside
                            // A small block before the first border of a large one.
                {"0x800E000",
                 "0x32000",
                 {{"0x800E000", 0x1000}, {"0x8010000", 0x12000}, {"0x8030000", 0x32000}},
                 0x32000},
                {"0x8000000", "0x8000", {{"0x8000000", 0x1000}}, 0x8000}};
    for (const auto& row : rows) {
        progress = {};
        reach_agent();
        info("########## Flash address: " + string(row.address));
        info("########## Flash size: " + string(row.size));
        info("########## Format send address(" + string(row.address) + ")");
        EXPECT_EQ(progress.total, row.total);
        for (const auto& [block, done] : row.responses) {
            info("Format resp address(" + string(block) + ")");
            EXPECT_EQ(progress.done, done) << row.address << " " << block;
        }
    }
}

TEST_F(DownloadLog, WriteCountsToTheImagesSize) {
    reach_write();
    EXPECT_EQ(progress.total, 10000U);
    info("Download resp address(0x8001000)");
    EXPECT_EQ(progress.done, 8192U);
    info("Download resp address(0x8002000)");
    EXPECT_EQ(progress.done, 10000U); // the last block is filled up
    info("download /load/a.bin PASS");
    EXPECT_EQ(progress.done, 0U);
    EXPECT_FALSE(progress.total); // of an image that can't be seen
    info("Download resp address(0x8010000)");
    EXPECT_EQ(progress.done, 4096U);
}

TEST_F(DownloadLog, ASecondPassSaysSoAndDoesNotGoBack) {
    reach_write();
    info("Download resp address(0x8001000)");
    EXPECT_EQ(progress.done, 8192U);
    info("DOWNLOAD Re-Send: count = 1");
    EXPECT_EQ(step(), "write image 1 of 2 (a.bin), second pass: 1 block");
    info("Download resp address(0x8000000)");
    EXPECT_EQ(progress.done, 8192U);
    EXPECT_EQ(download_view_bar(progress, {65, 5}, 200),
              "write image 1 of 2 (a.bin), second pass: 1 block  [###################.....]  81 %  1:05")
        << "no rate: it counts nothing new";
    EXPECT_NE(download_view_json(progress, {1, 0}).find("\"again\":1"), string::npos);
    info("download /load/a.bin PASS");
    EXPECT_EQ(step(), "write image 2 of 2 (b.bin)");
}

TEST_F(DownloadLog, ASecondPassOfTheEraseSaysSo) {
    reach_erase();
    info("Format resp address(0x8010000)");
    info("FORMAT Re-Send: count = 12");
    info("Format resp address(0x8000000)");
    EXPECT_EQ(step(), "erase, second pass: 12 blocks");
    EXPECT_EQ(progress.done, 0x20000U);
}

TEST_F(DownloadLog, AListBlockCutByACommentGivesItsPlaceToTheNext) {
    info("========== Download start ========");
    info("image count=3");
    info("file name=/load/cut.bin");
    info("skip [#comment]:");
    info("file name=/load/a.bin");
    info("begin_address:[0x8000000]=> 0x8000000");
    info("skip [#behind the start of a block]:");
    info("file name=/load/b.bin");
    info("begin_address:[0x8010000]=> 0x8010000");
    info("Format time: 10 ms");
    EXPECT_EQ(step(), "write image 1 of 3 (a.bin)");
    EXPECT_EQ(progress.total, 10000U);
    info("download /load/a.bin PASS");
    EXPECT_EQ(step(), "write image 2 of 3 (b.bin)");
    info("Download resp address(0x8010000)");
    EXPECT_EQ(progress.done, 4096U);
}

TEST_F(DownloadLog, FailuresOfTheDeviceAreNamedFirstWhenTheLogIsFullOfThem) {
    start();
    info("Please reboot chip again:");
    const string device = "[LOCSERV] ERR: [spi]can't send spi message";
    EXPECT_TRUE(is_own(device));
    EXPECT_TRUE(is_own(device));
    error("Handshake timeout, please retry!");
    EXPECT_EQ(download_log_cause(progress), "Handshake timeout, please retry!") << "two may be passing ones";
    EXPECT_TRUE(is_own(device));
    error("Handshake timeout, please retry!");
    EXPECT_EQ(download_log_cause(progress), "[spi]can't send spi message");
    EXPECT_EQ(download_view_failure(progress),
              "'[spi]can't send spi message' (3 times), then 'Handshake timeout, please retry!'; " +
                  string(download_advice("[spi]can't send spi message")));
    EXPECT_NE(download_view_failure_json(progress).find("\"error\":\"[spi]can't send"), string::npos);
    info("========== Handshake pass ==========");
    error("DA len is zero!");
    EXPECT_EQ(download_log_cause(progress), "DA len is zero!") << "those of a step that was passed";
}

TEST_F(DownloadLog, MostTellingErrorIsKept) {
    reach_write();
    error("[SPIM] SPI master send WR command failed");
    info("Download resp address(0x8001000)"); // overcome
    EXPECT_EQ(progress.error, "");
    error("download_sliding_window_flow TIMEOUT");
    error("download_sliding_window_flow fail");
    error("download /load/a.bin FAILED");
    info("========== Download Fail ========");
    EXPECT_EQ(progress.error, "download_sliding_window_flow TIMEOUT");
}

TEST_F(DownloadLog, SummaryAloneIsBetterThanNothing) {
    start();
    info("Please reboot chip again:");
    error("========== Handshake fail ==========");
    EXPECT_EQ(progress.error, "========== Handshake fail ==========");
}

TEST_F(DownloadLog, HostileLinesStayBounded) {
    start();
    for (int i = 0; i < 3000; ++i) {
        info("file name=/x");
        info("begin_address:[");
    }
    EXPECT_EQ(progress.list.size(), 1000U);
    info("image count=99999999999999999999");
    EXPECT_EQ(progress.images, 2U);
    error(string(100000, 'x'));
    EXPECT_EQ(progress.error.size(), 400U);
    info("image count=0");
    info("Format time: 1 ms");
    info("Download resp address(0x");
    info("download  PASS");
    info("SEND total ");
    EXPECT_EQ(progress.phase, DownloadPhase::kWrite);
    info("========== Handshake pass ==========");
    for (const char* line : {"SEND total 4294967295", "echoU8 Send 0xD7", "echoU32 Send 0x0",
                             "echoU32 Send 0x1", "SEND total 4294967295"}) {
        info(line);
        EXPECT_LE(download_view_bar(progress, {9, 4}, 80).size(), 80U) << line;
    }
}

TEST_F(DownloadLog, CountsBeyondTheirTotalAreCutToIt) {
    reach_agent();
    info("SEND 9 bytes OK,total 4000000000");
    EXPECT_EQ(progress.done, 4000000000U);
    info("echoU8 Send 0xD7");
    info("echoU32 Send 0x4200000");
    info("echoU32 Send 0x10");
    EXPECT_EQ(progress.done, 16U);
    EXPECT_EQ(download_view_bar(progress, {9, 4}, 200),
              "agent  [########################] 100 %  0.0 kB/s  0:00 left  0:09");
    info("########## Flash size: 0x1");
    info("########## Format send address(0x0)");
    info("Format resp address(0xFFFFFFFF)");
    EXPECT_EQ(progress.done, 1U);
}

TEST_F(DownloadLog, BarOfAnyCountsStaysOnItsLine) {
    reach_agent();
    progress.done = UINT64_MAX;
    progress.total = 1;
    EXPECT_EQ(download_view_bar(progress, {9, 0}, 200), "agent  [########################] 100 %  0:09");
    EXPECT_NE(download_view_bar(progress, {9, 4}, 200).find("  0:00 left"), string::npos);
    progress.done = 0;
    progress.total = UINT64_MAX;
    EXPECT_EQ(download_view_bar(progress, {9, 4}, 200), "agent  [........................]   0 %  0:09");
}

TEST_F(DownloadLog, EveryAdviceIsOneLine) {
    for (const char* text : {"open file Failed:/x",
                             "UnExpected line=x",
                             "DA len is zero!",
                             "Handshake timeout, please retry!",
                             "btrom checksum fail, 0x1/0x2",
                             "hdl_brom_set_register readU16 error",
                             "FORMAT_TIMEOUT",
                             "can not open /x",
                             "download_sliding_window_flow TIMEOUT",
                             "check_image_crc error, ErrorCode:3",
                             "The file(/x) could not closed.",
                             "read_cfg_file malloc cfg_list fail",
                             "image file can't be looked at: /x",
                             "concat malloc fail",
                             "da_format_flash malloc pData fail",
                             "download_image malloc pData fail",
                             "parsing_kite malloc con fail",
                             "read_dma_to_pool overflow, need to clear rx pool!",
                             "Reading error ( 0 )",
                             "[spi]location_spi_init, open fail",
                             "[spi]can't set spi mode: 3",
                             "[spi]can't send spi message",
                             "hdl_finish_kite error, ErrorCode:1",
                             "[SPIM] Error Status=0xff , counter=0"}) {
        EXPECT_NE(download_advice(text), download_advice("something else")) << text;
        EXPECT_EQ(download_advice(text).find('\n'), string::npos);
    }
}

TEST_F(DownloadLog, BarShowsShareRateAndTimeLeft) {
    reach_write();
    info("Download resp address(0x8000000)");
    info("Download resp address(0x8000388)"); // 5000 bytes
    EXPECT_EQ(download_view_bar(progress, {65, 2}, 200),
              "write image 1 of 2 (a.bin)  [############............]  50 %  2.5 kB/s  0:02 left  1:05");
    EXPECT_EQ(download_view_bar(progress, {65, 0.5}, 200),
              "write image 1 of 2 (a.bin)  [############............]  50 %  1:05");
    EXPECT_EQ(download_view_bar(progress, {65, 2}, 10), "write imag");
}

TEST_F(DownloadLog, BarWithoutATotalShowsTheTime) {
    EXPECT_EQ(download_view_bar(progress, {125.9, 3}, 200), "writing firmware  2:05");
    reach_write();
    info("download /load/a.bin PASS");
    EXPECT_EQ(download_view_bar(progress, {5, 3}, 200), "write image 2 of 2 (b.bin)  0:05");
    info("Download resp address(0x8010000)");
    EXPECT_EQ(download_view_bar(progress, {5, 2}, 200), "write image 2 of 2 (b.bin)  2.0 kB/s  0:05");
}

TEST_F(DownloadLog, NamesReachNoTerminalAsTheyAre) {
    info("========== Download start ========");
    info("image count=1");
    info("file name=/load/\x1B[2J.bin");
    info("Format time: 1 ms");
    EXPECT_EQ(step(), "write image 1 of 1 (\\x1b[2J.bin)");
}

TEST_F(DownloadLog, EventsAreJson) {
    EXPECT_EQ(download_view_json(progress, {1.5, 0}),
              "{\"type\":\"progress\",\"phase\":\"waiting\",\"image\":null,\"images\":null,\"done\":0,"
              "\"total\":null,\"again\":0,\"elapsed\":1.5}\n");
    reach_write();
    info("Download resp address(0x8000000)");
    EXPECT_EQ(download_view_json(progress, {2.0004, 0}),
              "{\"type\":\"progress\",\"phase\":\"write\",\"image\":1,\"images\":2,\"done\":4096,"
              "\"total\":10000,\"again\":0,\"elapsed\":2.0}\n");
    error("can not open /\"x\"\x1B");
    EXPECT_EQ(download_view_failure_json(progress),
              "{\"type\":\"failure\",\"error\":\"can not open /\\\"x\\\"\\u001b\",\"advice\":\"put the image "
              "file beside the image list, readable for the daemon\"}\n");
}
