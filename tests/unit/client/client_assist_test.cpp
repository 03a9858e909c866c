// What the log tells of assistance downloads, and how it is shown.
#include "client/assist_log.h"
#include "client/assist_view.h"

#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

const std::string kInfo = "[LOCSERV] INF: [XOD]";
const std::string kError = "[LOCSERV] ERR: [XOD]";

AssistLog log_of(const Lines& lines) {
    AssistLog log;
    for (const std::string& line : lines) {
        assist_log_line(log, line);
    }
    return log;
}

// The end of a download of BeiDou's file that failed with this line.
AssistEnd failed_with(const std::string& line) {
    const AssistLog log = log_of({line, kInfo + "xod_download_handle_result:[2,1] -1"});
    return log.ended.empty() ? AssistEnd{} : log.ended.front();
}

} // namespace

TEST(AssistLog, EndTellsTheFileAndThatItsSumIsRight) {
    const AssistLog log = log_of({kInfo + "MD5 check", kInfo + "xod_download_handle_result:[0,1] 0",
                                  kInfo + "xod_download_handle_result:[3,1] 0"});
    ASSERT_EQ(log.ended.size(), 2U);
    EXPECT_EQ(log.ended[0].name, "XOD_GR_3_1.DAT");
    EXPECT_TRUE(log.ended[0].verified);
    EXPECT_EQ(log.ended[1].name, "XOD_GAL_3.DAT");
}

TEST(AssistLog, FailureTellsItsCauseAndWhatToDo) {
    const AssistEnd blank = failed_with(kError + "xod_download_http download fail, XOD_BDS_3.DAT, status: 3");
    EXPECT_EQ(blank.name, "XOD_BDS_3.DAT");
    EXPECT_FALSE(blank.verified);
    EXPECT_EQ(blank.cause, "the transfer failed, status 3 of libcurl");
    EXPECT_NE(blank.advice.find("'XOD vendor='"), std::string::npos);
    EXPECT_EQ(failed_with(kError + "xod_download_http download fail, X, status: 99").advice,
              "look at the network");
    const AssistEnd sum = failed_with(kError + "xod_download_http MD5 check fail, ETag:a,MD5:b");
    EXPECT_EQ(sum.cause, "xod_download_http MD5 check fail, ETag:a,MD5:b");
    EXPECT_NE(sum.advice.find("proxy"), std::string::npos);
    EXPECT_NE(failed_with(kError + "xod_download_http get etag fail, x").advice.find("identity"),
              std::string::npos);
    EXPECT_NE(failed_with(kError + "xod_download_http open fail, /x").advice.find("'XOD file path='"),
              std::string::npos);
    EXPECT_EQ(failed_with(kError + "Open file fail, /x").cause, "")
        << "no cause: a file that was not there before";
}

TEST(AssistLog, CauseOfOneDownloadIsNotThatOfTheNext) {
    const AssistLog log =
        log_of({kError + "xod_download_http MD5 check fail, x", kInfo + "xod_download_handle_result:[2,1] -1",
                kInfo + "xod_download_handle_result,start retry timer:300000",
                kInfo + "xod_download_handle_result:[2,1] -1"});
    ASSERT_EQ(log.ended.size(), 2U);
    EXPECT_EQ(log.ended[0].retry_ms, 300000);
    EXPECT_EQ(log.ended[1].cause, "");
    EXPECT_FALSE(log.ended[1].retry_ms);
}

TEST(AssistLog, WaitsAreTold) {
    EXPECT_TRUE(log_of({kInfo + "xod_download_init, already init"}).waits);
    EXPECT_EQ(log_of({kInfo + "xod_download_init, start next download timer:62912000"}).next_ms, 62912000);
    const AssistLog noise =
        log_of({"", "noise", kInfo, kInfo + "xod_download_handle_result:[x] 0", "[LOCSERV] "});
    EXPECT_TRUE(noise.ended.empty() && !noise.waits && !noise.next_ms);
}

TEST(AssistView, FileIsShownWithSizeAndOutcome) {
    EXPECT_EQ(print_assist_file({"A.DAT", 12, true, "", "", std::nullopt}),
              "assistance data downloaded: A.DAT, 12 bytes, verified\n");
    EXPECT_EQ(print_assist_failure({"A.DAT", std::nullopt, false, "why\x1b", "do", 300000}),
              "A.DAT could not be downloaded: 'why\\x1b'; do; it is tried again in 5 min");
    EXPECT_EQ(
        print_assist_failure({"A.DAT", std::nullopt, false, "", "", std::nullopt}),
        "A.DAT could not be downloaded: the log does not tell why; it is tried again with the next refresh");
    EXPECT_EQ(
        print_assist_json({"", std::nullopt, true, "", "", std::nullopt}),
        "{\"type\":\"assist-file\",\"file\":null,\"bytes\":null,\"verified\":true,\"cause\":null,\"advice\":null,"
        "\"retry\":null}\n");
    EXPECT_EQ(print_duration(62912), "17 h");
}
