#include "xod_download_fixture.h"

#include "queue/service_queue.h"

#include <string>
#include <vector>

namespace {

using std::string;
using Transfers = std::vector<std::pair<uint32_t, uint32_t>>;

const string kInit = "[LOCSERV] INF: [XOD]xod_download_init:15,1\n";
const string kNothingValid = "[LOCSERV] INF: [XOD]valid:0,max:0\n";
const string kSoonFromInit = "[LOCSERV] INF: [XOD]xod_download_init, start next download timer:3000\n";

string selected(int valid, int end) {
    return "[LOCSERV] INF: [XOD]valid:" + std::to_string(valid) + ",max:" + std::to_string(end) + "\n";
}

string next_time(int delay, int valid, int end) {
    return "[LOCSERV] INF: [XOD]xod_download_get_next_download_time:" + std::to_string(delay) + " [" +
           std::to_string(valid) + "," + std::to_string(end) + "]\n";
}

string next_started(int delay) {
    return "[LOCSERV] INF: [XOD]xod_download_handle, start next download timer:" + std::to_string(delay) +
           "\n";
}

string init_started(int delay) {
    return "[LOCSERV] INF: [XOD]xod_download_init, start next download timer:" + std::to_string(delay) + "\n";
}

string result_line(int type, int index, int result) {
    return "[LOCSERV] INF: [XOD]xod_download_handle_result:[" + std::to_string(type) + "," +
           std::to_string(index) + "] " + std::to_string(result) + "\n";
}

string retry_started(int delay) {
    return "[LOCSERV] INF: [XOD]xod_download_handle_result,start retry timer:" + std::to_string(delay) + "\n";
}

void all_valid(int32_t valid, uint32_t end) {
    for (const uint32_t type : {0U, 1U, 2U, 3U}) {
        xod_fakes.hours[type] = {valid, end};
    }
}

// The schedule of files that all have 60 hours left.
const string kSixtyHours = selected(60, 1000) + next_time(62912000, 60, 1000);

} // namespace

TEST_F(XodDownload, WithoutFilesStartsInThreeSeconds) {
    EXPECT_EQ(init(), kInit + kNothingValid + kSoonFromInit);
    EXPECT_EQ(timers_alive(), 2U);
    EXPECT_EQ(next_in(), 3000);
    EXPECT_EQ(retry_in(), -1);
    fire();
    EXPECT_EQ(xod_fakes.transfers.front(), (std::pair{0U, 1U}));
}

TEST_F(XodDownload, InitWaitsForFreshFilesAndRefreshesOthersAlmostAtOnce) {
    const string too_many = "[LOCSERV] ERR: [XOD]valid hours > 72, check local time or xod file!\n";
    const struct {
        int valid;
        int end;
        int delay;
        string told;
    } rows[] = {{47, 1000, 3000, ""},
                {48, 1007, 18060000, next_time(18060000, 48, 1007)},
                {60, 1000, 62912000, next_time(62912000, 60, 1000)},
                {100, 1008, 90000000, too_many + next_time(90000000, 72, 1008)}}; // counts as 72
    for (const auto& row : rows) {
        all_valid(row.valid, static_cast<uint32_t>(row.end));
        EXPECT_EQ(init(), kInit + selected(row.valid, row.end) + row.told + init_started(row.delay));
        EXPECT_EQ(next_in(), row.delay);
        deinit();
    }
}

TEST_F(XodDownload, SecondInitWhileATimerIsArmedDoesNothing) {
    init();
    EXPECT_EQ(init(3, 7), "[LOCSERV] INF: [XOD]xod_download_init:3,7\n"
                          "[LOCSERV] INF: [XOD]xod_download_init, already init\n");
    xod_fakes.results = {-1};
    fire();
    ASSERT_GT(retry_in(), 0);
    EXPECT_EQ(init(), kInit + "[LOCSERV] INF: [XOD]xod_download_init, already init\n");
    EXPECT_EQ(xod_fakes.timers.size(), 2U);
}

TEST_F(XodDownload, GoodDownloadIsReportedAndTheNextOneScheduled) {
    init();
    all_valid(60, 1000);
    EXPECT_EQ(fire(), result_line(0, 1, 0) + kSixtyHours + next_started(62912000));
    EXPECT_EQ(xod_fakes.transfers, (Transfers{{0, 1}}));
    ASSERT_EQ(xod_fakes.messages.size(), 1U);
    EXPECT_EQ(xod_fakes.messages[0].id, SERVICE_ASSIST_RESULT);
    EXPECT_EQ(xod_fakes.messages[0].length, 4U);
    EXPECT_EQ(xod_fakes.messages[0].value, 0U);
    EXPECT_EQ(next_in(), 62912000);
}

TEST_F(XodDownload, EveryNumberedFileIsFetchedInOrder) {
    init(15, 3);
    all_valid(60, 1000);
    EXPECT_EQ(fire(), result_line(0, 1, 0) + result_line(0, 2, 0) + result_line(0, 3, 0) + kSixtyHours +
                          next_started(62912000));
    EXPECT_EQ(xod_fakes.transfers, (Transfers{{0, 1}, {0, 2}, {0, 3}}));
    EXPECT_EQ(xod_fakes.messages.size(), 3U);
}

TEST_F(XodDownload, EmptyMaskAsksForTheFirstType) {
    init(8, 2);
    fire();
    deinit();
    init(0, 1);
    EXPECT_EQ(next_in(), 3000);
    fire();
    EXPECT_EQ(xod_fakes.transfers, (Transfers{{3, 1}, {0, 1}}));
}

TEST_F(XodDownload, BeidouAndGalileoHaveOneFileEach) {
    all_valid(50, 1000);
    for (const uint32_t type : {2U, 3U}) {
        xod_fakes.transfers.clear();
        xod_fakes.hours[type] = {0, 0};
        init(15, 5);
        fire();
        EXPECT_EQ(xod_fakes.transfers, (Transfers{{type, 1}}));
        xod_fakes.hours[type] = {50, 1000};
        deinit();
    }
}

TEST_F(XodDownload, FailedFileIsTriedAgainBeforeTheOthers) {
    init(1, 3);
    xod_fakes.results = {0, -1, -1, 0, -1};
    fire();
    fire();
    EXPECT_EQ(fire(), result_line(1, 2, 0) + result_line(1, 3, -1) + retry_started(300000));
    EXPECT_EQ(xod_fakes.transfers, (Transfers{{1, 1}, {1, 2}, {1, 2}, {1, 2}, {1, 3}}));
}

TEST_F(XodDownload, FailedDownloadIsTriedFiveTimesAndDropped) {
    init();
    xod_fakes.results = {-1, -1, -1, -1, -1};
    EXPECT_EQ(fire(), result_line(0, 1, -1) + retry_started(300000));
    EXPECT_EQ(next_in(), -1);
    EXPECT_EQ(xod_fakes.messages.at(0).retry_in, -1) << "the result is sent before it is acted upon";
    EXPECT_EQ(fire(), result_line(0, 1, -1) + retry_started(600000));
    EXPECT_EQ(fire(), result_line(0, 1, -1) + retry_started(1200000));
    EXPECT_EQ(fire(), result_line(0, 1, -1) + retry_started(2400000));
    all_valid(60, 1000);
    EXPECT_EQ(fire(), result_line(0, 1, -1) + kSixtyHours + next_started(62912000));
    EXPECT_EQ(xod_fakes.now, 3000 + 300000 + 600000 + 1200000 + 2400000);
    EXPECT_EQ(retry_in(), -1);
    ASSERT_EQ(xod_fakes.messages.size(), 5U);
    EXPECT_EQ(xod_fakes.messages[4].value, 0xFFFFFFFFU);
    EXPECT_EQ(xod_fakes.transfers, Transfers(5, {0, 1}));
}

TEST_F(XodDownload, DroppedFileGivesWayToTheNextAtOnceWithFreshRetries) {
    init(15, 2);
    xod_fakes.results = {-1, -1, -1, -1, -1, -1};
    for (int i = 0; i < 4; ++i) {
        fire();
    }
    EXPECT_EQ(fire(), result_line(0, 1, -1) + result_line(0, 2, -1) + retry_started(300000));
    EXPECT_EQ(xod_fakes.transfers.back(), (std::pair{0U, 2U}));
}

TEST_F(XodDownload, ResultThatFindsNoMemoryIsNotSent) {
    init();
    fake_malloc_fails(2); // the first is the item
    all_valid(60, 1000);
    EXPECT_EQ(fire(), result_line(0, 1, 0) + kSixtyHours + next_started(62912000));
    EXPECT_TRUE(xod_fakes.messages.empty());
    deinit();
    init(15, 3);
    xod_fakes.hours.clear();
    xod_fakes.transfers.clear();
    fake_malloc_fails(2);
    fire();
    EXPECT_EQ(xod_fakes.transfers, (Transfers{{0, 1}, {0, 3}})) << "an item without memory is skipped";
}

TEST_F(XodDownload, DelayThatNoTimerTakesBecomesOneHour) {
    init();
    all_valid(40, 1008); // (40 - 47) * 3600 = -25200 s
    EXPECT_EQ(fire(), result_line(0, 1, 0) + selected(40, 1008) + next_time(-25200000, 40, 1008) +
                          next_started(-25200000) +
                          "[LOCSERV] WRN: [XOD]next download timer refused, started with 3600000\n");
    EXPECT_EQ(xod_fakes.starts, (std::vector<int32_t>{3000, -25200000, 3600000}));
    EXPECT_EQ(next_in(), 3600000);
    fire();
    EXPECT_EQ(xod_fakes.transfers.size(), 2U);
}

TEST_F(XodDownload, RequestDuringTheHourThatStandsInStartsAnew) {
    init();
    all_valid(40, 1008);
    fire();
    ASSERT_EQ(next_in(), 3600000);
    EXPECT_EQ(init(), kInit + selected(40, 1008) + kSoonFromInit);
    EXPECT_EQ(next_in(), 3000);
    EXPECT_EQ(timers_alive(), 2U);
    EXPECT_EQ(init(), kInit + "[LOCSERV] INF: [XOD]xod_download_init, already init\n");
}

TEST_F(XodDownload, WithoutTimersSaysSoAndCanBeStartedAgain) {
    xod_fakes.failing_creates = {1, 2};
    EXPECT_EQ(init(),
              kInit + kNothingValid + kSoonFromInit + "[LOCSERV] ERR: [XOD]next download timer start fail\n");
    EXPECT_EQ(init(), kInit + kNothingValid + kSoonFromInit);
    EXPECT_EQ(next_in(), 3000);
}

TEST_F(XodDownload, WithoutARetryTimerTheOtherOneRetries) {
    xod_fakes.failing_creates = {1};
    init();
    xod_fakes.results = {-1, 0};
    EXPECT_EQ(fire(), result_line(0, 1, -1) + retry_started(300000) +
                          "[LOCSERV] WRN: [XOD]retry timer refused, next download timer started instead\n");
    EXPECT_EQ(next_in(), 300000);
    fire();
    EXPECT_EQ(xod_fakes.transfers, Transfers(2, {0, 1}));
}

TEST_F(XodDownload, DeinitDeletesBothTimers) {
    init();
    EXPECT_EQ(deinit(), "[LOCSERV] INF: [XOD]xod_download_deinit\n");
    EXPECT_EQ(timers_alive(), 0U);
    EXPECT_EQ(deinit(), "[LOCSERV] INF: [XOD]xod_download_deinit\n");
}

TEST_F(XodDownload, DeinitDuringARetryWaitFreesTheWaitingItem) {
    init(15, 2);
    xod_fakes.results = {-1};
    fire();
    EXPECT_EQ(deinit(), "[LOCSERV] INF: [XOD]xod_download_deinit\n");
    EXPECT_EQ(timers_alive(), 0U);
    xod_fakes.transfers.clear();
    init(8, 1);
    xod_fakes.hours[3] = {60, 1000};
    fire();
    EXPECT_EQ(xod_fakes.transfers, (Transfers{{3, 1}})); // nothing from before
}

TEST_F(XodDownload, CallbackAfterDeinitDoesNothing) {
    init();
    deinit();
    EXPECT_EQ(enqueue(), "");
    EXPECT_EQ(handle(), "");
    EXPECT_TRUE(xod_fakes.transfers.empty());
    EXPECT_EQ(xod_fakes.starts, std::vector<int32_t>{3000});
}

TEST_F(XodDownload, EnqueueDuringARetryWaitTriesAtOnceAndOnlyOnce) {
    init();
    xod_fakes.results = {-1, 0};
    fire();
    ASSERT_EQ(retry_in(), 300000);
    all_valid(60, 1000);
    EXPECT_EQ(enqueue(), result_line(0, 1, 0) + kSixtyHours + next_started(62912000));
    EXPECT_EQ(xod_fakes.transfers.size(), 2U);
    EXPECT_EQ(retry_in(), -1);
}
