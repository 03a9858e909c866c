// The files of a download: what stands in their place, what fails with them, and good ones that are kept.
#include "xod_http_fixture.h"

#include "support/capture.h"
#include "support/fifo.h"
#include "support/file_size_limit.h"

namespace {

using std::string;
namespace fs = std::filesystem;

// With the setting to keep good files.
struct XodHttpKeep : XodHttp {
    XodHttpKeep() {
        keep = true;
        dir.write("xod/XOD_GR_3_1.DAT", "old");
    }
    // The old file is whole, and nothing lies beside it.
    void expect_old() const {
        EXPECT_EQ(content(), "old");
        EXPECT_FALSE(exists("XOD_GR_3_1.DAT.new"));
    }
    string replace_fail() const {
        return "[LOCSERV] ERR: [XOD]xod_download_http replace fail, " + path() + "\n";
    }
};

} // namespace

TEST_F(XodHttp, HeaderIsWrittenToNoFifoAndThroughNoLink) {
    serve_good();
    expect_no_wait_for_fifo(dir.path / "tmp/head.out", [&] { EXPECT_EQ(download(), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fail, /tmp/head.out\n");
    fs::remove(dir.path / "tmp/head.out");
    fs::create_symlink(dir.write("victim", "whole"), dir.path / "tmp/head.out");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fail, /tmp/head.out\n");
    EXPECT_EQ(dir.read("victim"), "whole");
}

TEST_F(XodHttp, FileIsWrittenToNoFifoAndNoDevice) {
    serve_good();
    expect_no_wait_for_fifo(path(), [&] { EXPECT_EQ(download(), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http open fail, " + path() + "\n");
    fs::remove(path());
    fs::create_symlink("/dev/null", path());
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http open fail, " + path() + "\n");
    EXPECT_TRUE(requests().empty());
}

TEST_F(XodHttp, FileAndHeaderThatFailTogetherAreBothLogged) {
    serve_good();
    fs::create_directories(path());
    faults.failing_writer = 1;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fclose fail\n"
                   "[LOCSERV] ERR: [XOD]xod_download_http open fail, " +
                       path() + "\n");
}

TEST_F(XodHttp, FullDiskFailsTheTransfer) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", string(100000, 'a')));
    const FileSizeLimit limit(50000);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_WRITE_ERROR));
}

TEST_F(XodHttp, FilesThatFailToCloseAreLoggedAndChecked) {
    serve_good();
    for (const int nth : {1, 2}) {
        faults.failing_writer = nth;
        EXPECT_EQ(download(), 0);
        EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fclose fail\n" + good_log());
    }
}

TEST_F(XodHttp, ReadFilesThatFailToCloseCount) {
    serve_good();
    faults.failing_reader = "/head.out";
    EXPECT_EQ(download(), 0);
    EXPECT_EQ(log, kEtagLine + "[LOCSERV] ERR: [XOD]xod_download_get_etag, fclose fail\n" +
                       good_log().substr(kEtagLine.size()));
    faults.failing_reader = "/XOD_GR_3_1.DAT";
    EXPECT_EQ(download(), 0);
    EXPECT_NE(log.find("MD5 check\n[LOCSERV] ERR: [XOD]xod_download_md5_check fclose fail\n"), string::npos)
        << log;
}

TEST_F(XodHttp, FilesThatAreGoneAfterTheTransferFailTheCheck) {
    string gone = "tmp/head.out";
    serve([&](int connection, const string&) {
        fs::remove(dir.path / gone);
        http_send(connection, answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    });
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]Open file fail, /tmp/head.out\n" + kNoEtag);
    gone = "xod/XOD_GR_3_1.DAT";
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, kEtagLine + "[LOCSERV] INF: [XOD]MD5 check\n[LOCSERV] ERR: [XOD]Open file fail, " +
                       path() + "\n[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:" + kSum +
                       ",MD5:\n");
}

TEST_F(XodHttp, SumThatCanNotBeMadeFailsTheCheck) {
    serve_text(answer_with("ETag: \r\n", kBody));
    faults.md5_finish_fails = true;
    EXPECT_EQ(download(), -1) << "an empty sum is that of an empty ETag";
    faults.md5_finish_fails = false;
    serve_good();
    for (bool XodHttpFaults::*fault : {&XodHttpFaults::md5_start_fails, &XodHttpFaults::md5_update_fails,
                                       &XodHttpFaults::md5_finish_fails}) {
        faults.*fault = true;
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(log, kEtagLine + md5_lines("") +
                           "[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:" + kSum + ",MD5:\n");
        faults.*fault = false;
    }
}

TEST_F(XodHttpKeep, GoodFileTakesThePlaceOfTheOld) {
    dir.write("xod/XOD_GR_3_1.DAT.new", "longer, left by a daemon that was killed");
    string during;
    bool locked = true;
    serve([&](int connection, const string&) {
        during = content();
        locked = is_locked();
        http_send(connection, answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    });
    EXPECT_EQ(download(), 0);
    server.reset(); // its thread has ended
    EXPECT_EQ(during, "old");
    EXPECT_FALSE(locked) << "a stalled server would hold up the readers";
    EXPECT_EQ(faults.unlocked_renames, 0);
    EXPECT_EQ(faults.calls, "fsync rename ") << "a loss of power could leave an empty file";
    EXPECT_EQ(content(), kBody);
    EXPECT_FALSE(exists("XOD_GR_3_1.DAT.new"));
}

TEST_F(XodHttpKeep, FailuresLeaveTheOldFile) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", "abd"));
    EXPECT_EQ(download(), -1);
    expect_old();
    serve_text(answer_with("", kBody));
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, kNoEtag);
    expect_old();
    serve_text("HTTP/1.1 200 OK\r\nETag: \"" + kSum + "\"\r\nContent-Length: 100\r\n\r\nhalf");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_PARTIAL_FILE));
    expect_old();
    server.reset(); // nobody listens now
    EXPECT_EQ(download(), -1);
    expect_old();
}

TEST_F(XodHttpKeep, FullDiskLeavesTheOldFile) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", string(100000, 'a')));
    const FileSizeLimit limit(50000);
    EXPECT_EQ(download(), -1);
    expect_old();
}

TEST_F(XodHttpKeep, FileThatDoesNotReachTheDiskOrThePlaceLeavesTheOld) {
    serve_good();
    faults.fsync_fails = true;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(lines_of(log).back() + "\n", replace_fail());
    expect_old();
    faults.fsync_fails = false;
    fs::remove(path());
    fs::create_directories(path() + "/not empty");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(lines_of(log).back() + "\n", replace_fail());
    EXPECT_FALSE(exists("XOD_GR_3_1.DAT.new"));
}
