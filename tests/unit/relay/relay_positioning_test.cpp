#include "hub/hub.h"
#include "support/relay_loop.h"

#include <chrono>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace {

// As a second: nothing is tried again in the test. Five of it are longer than machines are up.
constexpr std::chrono::seconds kEndless{1000000};

struct RelayPositioning : testing::Test {
    size_t starts() const {
        return loop.daemon->count(TAVOR_REQUEST_START);
    }
    size_t stops() const {
        return loop.daemon->count(TAVOR_REQUEST_STOP);
    }
    // On demand, at a daemon that is there; nothing is tried again.
    bool connected_for_good(std::chrono::milliseconds stop_delay = std::chrono::milliseconds(50)) {
        loop.second = kEndless;
        loop.start_daemon();
        loop.open(false, stop_delay);
        return loop.until(upstream_connected);
    }

    RelayLoop loop;
};

TEST_F(RelayPositioning, IsStartedAlwaysAndAgainWithTheNextDaemonWithinTwoSeconds) {
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    EXPECT_EQ(starts(), 1U);
    loop.start_daemon();
    const auto began = RelayClock::now();
    ASSERT_TRUE(loop.until([&] { return starts() == 1; }));
    EXPECT_LT(RelayClock::now() - began, std::chrono::seconds(2));
    EXPECT_EQ(hub_counters().daemon_restarts, 1U);
}

TEST_F(RelayPositioning, ARestartedDaemonIsNoticedAlsoWhenNothingIsWantedOfIt) {
    loop.open(false);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(upstream_connected));
    int64_t saved = -1;
    upstream_request(TAVOR_REQUEST_SAVE_LOCATION, "", [&](uint32_t value) { saved = value; });
    ASSERT_TRUE(loop.until([&] { return saved == 0; }));
    loop.start_daemon();
    EXPECT_TRUE(loop.until([] { return hub_counters().daemon_restarts == 1; }));
}

TEST_F(RelayPositioning, OnDemandBeginsWithTheFirstConsumerAndEndsBehindTheLast) {
    loop.open(false, std::chrono::milliseconds(60));
    loop.start_daemon();
    ASSERT_TRUE(loop.until(upstream_connected));
    loop.turn_for(10 * kShortSecond);
    EXPECT_EQ(starts(), 0U);
    positioning_want(+1);
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    positioning_want(-1);
    loop.turn_for(std::chrono::milliseconds(120));
    EXPECT_EQ(stops(), 0U);
    const auto left = RelayClock::now();
    positioning_want(-1);
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    EXPECT_GE(RelayClock::now() - left,
              std::chrono::milliseconds(50)); // the loop's clock moves a tick at a time
}

TEST_F(RelayPositioning, AConsumerThatComesInTimePreventsTheStop) {
    loop.open(false, std::chrono::milliseconds(800)); // far more than a loaded machine loses in 20
    loop.start_daemon();
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    positioning_want(-1);
    loop.turn_for(std::chrono::milliseconds(20));
    positioning_want(+1);
    loop.turn_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(stops(), 0U);
}

TEST_F(RelayPositioning, OnDemandWhatARelayBeforeHasLeftOnIsStopped) {
    loop.left_on = true;
    loop.open(false);
    loop.start_daemon();
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    loop.turn_for(20 * kShortSecond);
    EXPECT_EQ(stops(), 1U);
    loop.start_daemon(); // off, as each daemon begins
    ASSERT_TRUE(loop.until([&] { return hub_counters().daemon_restarts == 1; }));
    loop.turn_for(20 * kShortSecond);
    EXPECT_EQ(stops(), 0U);
}

TEST_F(RelayPositioning, OnDemandAConsumerInTimeTakesOverWhatIsLeftOn) {
    loop.second = 10 * kShortSecond; // a pause of the test is no silence
    loop.left_on = true;
    loop.open(false);
    loop.start_daemon();
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    loop.turn_for(20 * kShortSecond);
    EXPECT_EQ(starts(), 1U);
    EXPECT_EQ(stops(), 0U);
    positioning_want(-1);
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    loop.turn_for(20 * kShortSecond);
    EXPECT_EQ(stops(), 1U);
}

TEST_F(RelayPositioning, OnDemandTheNextDaemonIsStartedForConsumersOnly) {
    loop.second = 5 * kShortSecond; // a pause of the test is no silence
    loop.open(false);
    loop.start_daemon();
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    loop.start_daemon();
    ASSERT_TRUE(loop.until([&] { return starts() == 1; }));
    ASSERT_TRUE(loop.until(positioning_is_on));
    positioning_want(-1);
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    loop.start_daemon();
    ASSERT_TRUE(loop.until([&] { return hub_counters().daemon_restarts == 2; }));
    loop.turn_for(10 * loop.second);
    EXPECT_TRUE(loop.daemon->requests.empty());
}

TEST_F(RelayPositioning, AStopForAllHoldsAlsoBehindADaemonThatIsRestarted) {
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    positioning_stop(true, [](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    loop.start_daemon();
    ASSERT_TRUE(loop.until([&] { return hub_counters().daemon_restarts == 1; }));
    loop.turn_for(20 * kShortSecond);
    EXPECT_TRUE(loop.daemon->requests.empty());
}

TEST_F(RelayPositioning, AStartDuringADownloadIsAnsweredBehindIt) {
    loop.open(false);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(upstream_connected));
    loop.daemon->answers = false;
    positioning_download([](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 1; }));
    std::optional<uint32_t> told;
    positioning_start([&](uint32_t value) { told = value; });
    loop.turn_for(15 * kShortSecond); // more than a start may wait for its turn
    EXPECT_FALSE(told.has_value());
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_DOWNLOAD, 0));
    ASSERT_TRUE(loop.until([&] { return told.has_value(); }));
    EXPECT_EQ(*told, 0U);
    EXPECT_EQ(starts(), 1U);
}

TEST_F(RelayPositioning, AStopForAllHoldsUntilSomebodyAsksStart) {
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    std::optional<uint32_t> stopped;
    positioning_stop(true, [&](uint32_t value) { stopped = value; });
    ASSERT_TRUE(loop.until([&] { return stopped.has_value(); }));
    EXPECT_EQ(*stopped, 0U);
    positioning_want(+1);
    loop.turn_for(20 * kShortSecond);
    EXPECT_EQ(starts(), 1U);
    std::optional<uint32_t> started;
    positioning_start([&](uint32_t value) { started = value; });
    ASSERT_TRUE(loop.until([&] { return started.has_value(); }));
    EXPECT_EQ(starts(), 2U);
}

TEST_F(RelayPositioning, AStopWithoutTheRightEndsNothingThatOthersWant) {
    loop.open(false);
    loop.start_daemon();
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    std::optional<uint32_t> stopped;
    positioning_stop(false, [&](uint32_t value) { stopped = value; });
    EXPECT_EQ(stopped, 0U);
    loop.turn_for(5 * kShortSecond);
    EXPECT_EQ(stops(), 0U);
    positioning_want(-1);
    positioning_stop(false, [&](uint32_t value) { stopped = value + 1; });
    ASSERT_TRUE(loop.until([&] { return stopped == 1U; }));
    EXPECT_EQ(stops(), 1U);
}

TEST_F(RelayPositioning, ManyWhoAskStartTogetherCostOneRequest) {
    loop.second = 5 * kShortSecond; // a pause of the test is no silence
    loop.open(false);
    loop.start_daemon();
    loop.daemon->answers = false;
    ASSERT_TRUE(loop.until(upstream_connected));
    int answered = 0;
    for (int i = 0; i < 10; ++i) {
        positioning_start([&](uint32_t value) { answered += value == 0 ? 1 : 0; });
    }
    ASSERT_TRUE(loop.until([&] { return starts() == 1; }));
    EXPECT_EQ(answered, 0);
    loop.daemon->send(relay_response(TAVOR_CODE_START, 0));
    ASSERT_TRUE(loop.until([&] { return answered == 10; }));
    positioning_start([&](uint32_t /*unused*/) { ++answered; });
    EXPECT_EQ(answered, 11);
    EXPECT_EQ(starts(), 1U);
}

TEST_F(RelayPositioning, FourThousandAndNinetySixWaitForAStartAtMost) {
    ASSERT_TRUE(connected_for_good());
    loop.daemon->answers = false;
    positioning_download([](uint32_t /*unused*/) {});
    int started = 0;
    int failed = 0;
    const auto ask = [&] { positioning_start([&](uint32_t value) { ++(value == 0 ? started : failed); }); };
    for (int i = 0; i < 4097; ++i) {
        ask();
    }
    EXPECT_EQ(failed, 1);
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 1; }));
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_DOWNLOAD, 0));
    ASSERT_TRUE(loop.until([&] { return started == 4096; }));
    positioning_stop(true, [](uint32_t /*unused*/) {});
    ask();
    EXPECT_TRUE(loop.until([&] { return started == 4097; }));
    EXPECT_EQ(failed, 1);
}

TEST_F(RelayPositioning, AStartThatComesWhileAStopWaitsIsAskedBehindIt) {
    loop.second = kEndless;
    loop.start_daemon();
    loop.daemon->answers = false;
    loop.open(false);
    positioning_want(+1);
    ASSERT_TRUE(loop.until([&] { return starts() == 1; }));
    positioning_stop(true, [](uint32_t /*unused*/) {});
    std::optional<uint32_t> told;
    positioning_start([&](uint32_t value) { told = value; });
    loop.daemon->send(relay_response(TAVOR_CODE_START, 0));
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    EXPECT_FALSE(told.has_value());
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_STOP, 0));
    ASSERT_TRUE(loop.until([&] { return told.has_value(); }));
    EXPECT_EQ(*told, 0U);
    EXPECT_EQ(starts(), 2U);
    EXPECT_TRUE(positioning_is_on());
}

TEST_F(RelayPositioning, AStartInFrontOfAStopIsAnsweredFirstAndNotRepeated) {
    ASSERT_TRUE(connected_for_good(std::chrono::seconds(1000)));
    std::vector<std::string> told;
    positioning_start([&](uint32_t /*unused*/) { told.emplace_back("start"); });
    positioning_stop(true, [&](uint32_t /*unused*/) { told.emplace_back("stop"); });
    ASSERT_TRUE(loop.until([&] { return told.size() == 2; }));
    EXPECT_EQ(told, (std::vector<std::string>{"start", "stop"}));
    loop.turn_for(5 * kShortSecond);
    EXPECT_EQ(starts(), 1U);
    EXPECT_FALSE(positioning_is_on());
}

TEST_F(RelayPositioning, StartsAndStopsAreAnsweredInTheirOrder) {
    ASSERT_TRUE(connected_for_good(std::chrono::seconds(1000)));
    std::string told;
    for (const char letter : {'a', 'b', 'c'}) {
        positioning_stop(true, [&told, letter](uint32_t /*unused*/) { told += letter; });
        positioning_start([&told, letter](uint32_t /*unused*/) { told += static_cast<char>(letter - 32); });
    }
    ASSERT_TRUE(loop.until([&] { return told.size() == 6; }));
    EXPECT_EQ(told, "aAbBcC");
    EXPECT_TRUE(positioning_is_on());
}

TEST_F(RelayPositioning, AStopThatComesWithACommandGoesOutWithIt) {
    ASSERT_TRUE(connected_for_good());
    loop.daemon->answers = false;
    upstream_request(TAVOR_REQUEST_COMMAND, "353,1", [](uint32_t /*unused*/) {});
    upstream_request(TAVOR_REQUEST_STOP, "", [](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
}

TEST_F(RelayPositioning, WhoComesWhileAStopIsOutNeedNotWait) {
    loop.second = kEndless;
    loop.start_daemon();
    loop.open(true);
    ASSERT_TRUE(loop.until(positioning_is_on));
    positioning_download([](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return starts() == 2; }));
    ASSERT_TRUE(loop.until(positioning_is_on));
}

TEST_F(RelayPositioning, AStartAgainstSilenceThatFailedLeavesItOff) {
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    loop.daemon->value = TAVOR_VALUE_FAILED;
    ASSERT_TRUE(loop.until([] { return !positioning_is_on(); }));
    EXPECT_GE(starts(), 2U);
}

TEST_F(RelayPositioning, AFailedStartIsToldAndTriedAgain) {
    loop.open(true);
    loop.start_daemon();
    loop.daemon->value = TAVOR_VALUE_FAILED;
    std::optional<uint32_t> told;
    positioning_start([&](uint32_t value) { told = value; });
    ASSERT_TRUE(loop.until([&] { return told.has_value(); }));
    EXPECT_EQ(*told, TAVOR_VALUE_FAILED);
    loop.daemon->value = 0;
    ASSERT_TRUE(loop.until(positioning_is_on));
}

TEST_F(RelayPositioning, WhoAsksStartOnAndOnInVainDoesNotFillTheLog) {
    loop.second = kEndless;
    loop.open(false);
    loop.start_daemon();
    loop.daemon->value = TAVOR_VALUE_FAILED;
    testing::internal::CaptureStdout();
    const auto began = RelayClock::now();
    int told = 0;
    for (int i = 1; i <= 20; ++i) {
        positioning_start([&](uint32_t /*unused*/) { ++told; });
        ASSERT_TRUE(loop.until([&] { return told == i; }));
    }
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(RelayClock::now() - began).count();
    std::istringstream log(testing::internal::GetCapturedStdout());
    int lines = 0;
    for (std::string line; std::getline(log, line);) {
        lines += line.find("positioning could not be started") != std::string::npos ? 1 : 0;
    }
    EXPECT_GE(lines, 1);
    EXPECT_LE(lines, seconds);
}

TEST_F(RelayPositioning, SilenceIsBrokenWithAStart) {
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    const auto began = RelayClock::now();
    ASSERT_TRUE(loop.until([&] { return starts() == 3; }));
    EXPECT_GE(RelayClock::now() - began, 14 * kShortSecond); // 5 and then 10
    ASSERT_TRUE(loop.until(positioning_is_on));
}

TEST_F(RelayPositioning, NothingIsBrokenWhileSentencesCome) {
    loop.second = 5 * kShortSecond; // a pause of the test is no silence
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    const auto end = RelayClock::now() + 8 * loop.second;
    loop.until([&] {
        loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, "$GNGGA\r\n"));
        return RelayClock::now() >= end;
    });
    EXPECT_EQ(starts(), 1U);
}

TEST_F(RelayPositioning, IsStartedAgainBehindADownload) {
    loop.second = 5 * kShortSecond; // a pause of the test is no silence
    loop.open(true);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(positioning_is_on));
    loop.daemon->answers = false;
    std::optional<uint32_t> result;
    positioning_download([&](uint32_t value) { result = value; });
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 1; }));
    loop.turn_for(30 * kShortSecond); // no request disturbs it
    EXPECT_EQ(loop.daemon->requests.size(), 2U);
    EXPECT_FALSE(result);
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_DOWNLOAD, 0));
    ASSERT_TRUE(loop.until(positioning_is_on));
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(starts(), 2U);
}

TEST_F(RelayPositioning, AStopWithoutTheRightEndsNoDownload) {
    loop.open(false);
    loop.start_daemon();
    ASSERT_TRUE(loop.until(upstream_connected));
    loop.daemon->answers = false;
    positioning_download([](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 1; }));
    std::optional<uint32_t> stopped;
    positioning_stop(false, [&](uint32_t value) { stopped = value; });
    EXPECT_EQ(stopped, 0U);
    loop.turn_for(5 * kShortSecond);
    EXPECT_EQ(stops(), 0U);
    positioning_stop(true, [](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
}

TEST_F(RelayPositioning, AStopForAllEndsADownloadAtOnceAlsoBehindAStart) {
    ASSERT_TRUE(connected_for_good());
    loop.daemon->answers = false;
    positioning_download([](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 1; }));
    std::vector<std::string> told;
    positioning_start([&](uint32_t value) { told.emplace_back(value == 0 ? "on" : "not on"); });
    positioning_stop(true, [&](uint32_t /*unused*/) { told.emplace_back("off"); });
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    loop.daemon->send(relay_response(TAVOR_CODE_DOWNLOAD, TAVOR_VALUE_FAILED));
    loop.daemon->send(relay_response(TAVOR_CODE_STOP, 0));
    ASSERT_TRUE(loop.until([&] { return told.size() == 2; }));
    EXPECT_EQ(told, (std::vector<std::string>{"not on", "off"}));
    EXPECT_EQ(starts(), 0U);
    EXPECT_FALSE(positioning_is_on());
}

TEST_F(RelayPositioning, TheStopBehindTheLastConsumerEndsNoDownload) {
    ASSERT_TRUE(connected_for_good(std::chrono::milliseconds(50)));
    loop.daemon->answers = false;
    positioning_download([](uint32_t /*unused*/) {});
    positioning_download([](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 1; }));
    loop.daemon->send(relay_response(TAVOR_CODE_DOWNLOAD, TAVOR_VALUE_FAILED));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_DOWNLOAD) == 2; }));
    loop.turn_for(std::chrono::milliseconds(150));
    EXPECT_EQ(stops(), 0U);
    loop.daemon->send(relay_response(TAVOR_CODE_DOWNLOAD, TAVOR_VALUE_FAILED));
    EXPECT_TRUE(loop.until([&] { return stops() == 1; })); // it may be on
}

TEST_F(RelayPositioning, AStartIsAnsweredBehindAStopThatIsOut) {
    ASSERT_TRUE(connected_for_good(std::chrono::seconds(1000)));
    loop.daemon->answers = false;
    int stopped = 0;
    for (int i = 0; i < 2; ++i) {
        positioning_stop(true, [&](uint32_t /*unused*/) { ++stopped; });
    }
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
    loop.daemon->send(relay_response(TAVOR_CODE_STOP, TAVOR_VALUE_FAILED));
    ASSERT_TRUE(loop.until([&] { return stops() == 2; }));
    int stopped_before = 0;
    std::optional<uint32_t> told;
    positioning_start([&](uint32_t value) {
        stopped_before = stopped;
        told = value;
    });
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_STOP, 0));
    ASSERT_TRUE(loop.until([&] { return told.has_value(); }));
    EXPECT_EQ(*told, 0U);
    EXPECT_EQ(stopped_before, 2);
    EXPECT_EQ(starts(), 1U);
}

TEST_F(RelayPositioning, ADownloadThatIsNotTakenLeavesTheStopToCome) {
    loop.open(false, std::chrono::milliseconds(100));
    loop.start_daemon();
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    positioning_want(-1);
    for (int i = 0; i < 256; ++i) {
        upstream_request(TAVOR_REQUEST_SAVE_LOCATION, "", nullptr);
    }
    std::optional<uint32_t> result;
    positioning_download([&](uint32_t value) { result = value; });
    ASSERT_TRUE(loop.until([&] { return result.has_value(); }));
    EXPECT_EQ(*result, TAVOR_VALUE_FAILED);
    EXPECT_EQ(loop.daemon->count(TAVOR_REQUEST_DOWNLOAD), 0U);
    ASSERT_TRUE(loop.until([&] { return stops() == 1; }));
}

TEST_F(RelayPositioning, WhatFindsNoPlaceFailsFromTheLoop) {
    loop.open(false); // nobody takes what waits
    for (int i = 0; i < 256; ++i) {
        upstream_request(TAVOR_REQUEST_SAVE_LOCATION, "", nullptr);
    }
    std::optional<uint32_t> told;
    upstream_request(TAVOR_REQUEST_SAVE_LOCATION, "", [&](uint32_t value) { told = value; });
    EXPECT_FALSE(told.has_value()) << "the asker may be in the midst of something";
    event_base_loop(loop.base.get(), EVLOOP_NONBLOCK);
    EXPECT_EQ(told, TAVOR_VALUE_FAILED);
}

TEST_F(RelayPositioning, AStopThatFailedIsTriedAgain) {
    loop.open(false);
    loop.start_daemon();
    positioning_want(+1);
    ASSERT_TRUE(loop.until(positioning_is_on));
    loop.daemon->value = TAVOR_VALUE_FAILED;
    positioning_want(-1);
    ASSERT_TRUE(loop.until([&] { return stops() == 2; }));
}

TEST_F(RelayPositioning, WithoutADaemonAStartFailsSoon) {
    loop.open(false);
    std::optional<uint32_t> told;
    positioning_start([&](uint32_t value) { told = value; });
    ASSERT_TRUE(loop.until([&] { return told.has_value(); }));
    EXPECT_EQ(*told, TAVOR_VALUE_FAILED);
}

} // namespace
