#include "support/relay_loop.h"
#include "support/wait.h"
#include "upstream/upstream_requests.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t kNone = -2;

struct RelayRequests : testing::Test {
    RelayRequests() {
        upstream_requests_open(kShortSecond);
    }
    ~RelayRequests() override {
        upstream_requests_open(kShortSecond);
    }

    static UpstreamAnswer into(int64_t& result) {
        return [&result](uint32_t value) { result = value; };
    }
    static bool answer(uint32_t code, uint32_t value, const std::string& payload = "") {
        return upstream_requests_answered(relay_response(code, value, payload));
    }
    static bool expire_until(const std::function<bool()>& condition, bool connected = true) {
        return wait_until([&] {
            upstream_requests_expire(connected);
            return condition();
        });
    }
};

TEST_F(RelayRequests, TheNextOneGoesOutBehindTheAnswer) {
    int64_t save = kNone;
    int64_t debug = kNone;
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(save));
    upstream_requests_add(TAVOR_REQUEST_DEBUG_TCP, "", into(debug));
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_SAVE_LOCATION);
    upstream_requests_sent();
    EXPECT_EQ(upstream_requests_next(), nullptr);

    EXPECT_FALSE(answer(TAVOR_CODE_DEBUG, 7)); // nobody's, so far
    EXPECT_TRUE(answer(TAVOR_CODE_SAVE_LOCATION, 3));
    EXPECT_EQ(save, 3);
    EXPECT_EQ(debug, kNone);
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_DEBUG_TCP);
    upstream_requests_sent();
    EXPECT_TRUE(answer(TAVOR_CODE_DEBUG, 0));
    EXPECT_EQ(debug, 0);
    EXPECT_FALSE(upstream_requests_busy());
}

TEST_F(RelayRequests, ASentenceOfTheChipIsNotTheResultOfACommand) {
    int64_t result = kNone;
    upstream_requests_add(TAVOR_REQUEST_COMMAND, "353,1", into(result));
    EXPECT_STREQ(upstream_requests_next()->text, "353,1");
    upstream_requests_sent();
    EXPECT_FALSE(answer(TAVOR_CODE_CHIP, 0, "$PZUL001,353,0*27\r\n"));
    EXPECT_EQ(result, kNone);
    EXPECT_TRUE(answer(TAVOR_CODE_CHIP, TAVOR_VALUE_FAILED));
    EXPECT_EQ(result, TAVOR_VALUE_FAILED);
}

TEST_F(RelayRequests, ALateAnswerIsNotTakenForTheNextOnes) {
    int64_t first = kNone;
    int64_t second = kNone;
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(first));
    upstream_requests_sent();
    ASSERT_TRUE(expire_until([&] { return first != kNone; }));
    EXPECT_EQ(first, TAVOR_VALUE_FAILED);
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(second));
    EXPECT_EQ(upstream_requests_next(), nullptr);
    EXPECT_TRUE(answer(TAVOR_CODE_SAVE_LOCATION, 0)); // the first one's
    EXPECT_EQ(second, kNone);
    upstream_requests_sent();
    EXPECT_TRUE(answer(TAVOR_CODE_SAVE_LOCATION, 5));
    EXPECT_EQ(second, 5);
}

TEST_F(RelayRequests, AnAnswerThatNeverComesHoldsUpTheNextForASecondLimitOnly) {
    int64_t first = kNone;
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(first));
    upstream_requests_sent();
    const auto began = RelayClock::now();
    ASSERT_TRUE(expire_until([] { return !upstream_requests_busy(); }));
    EXPECT_GE(RelayClock::now() - began, 20 * kShortSecond);
    EXPECT_EQ(first, TAVOR_VALUE_FAILED);
}

TEST_F(RelayRequests, OneThatWaitsTooLongIsAnsweredWhileAnEarlierOneGoesOn) {
    int64_t download = kNone;
    int64_t save = kNone;
    upstream_requests_add(TAVOR_REQUEST_DOWNLOAD, "", into(download));
    upstream_requests_sent();
    upstream_requests_add(TAVOR_REQUEST_STOP, "", into(download));
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(save));
    const auto began = RelayClock::now();
    ASSERT_TRUE(expire_until([&] { return save != kNone; }));
    EXPECT_EQ(save, TAVOR_VALUE_FAILED);
    EXPECT_GE(RelayClock::now() - began, 10 * kShortSecond);
    EXPECT_EQ(download, kNone);
}

TEST_F(RelayRequests, AStopGoesOutBesideWhatHangsAndBeforeWhatWaits) {
    int64_t command = kNone;
    int64_t stop = kNone;
    upstream_requests_add(TAVOR_REQUEST_COMMAND, "353,1", into(command));
    upstream_requests_sent();
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", nullptr);
    upstream_requests_add(TAVOR_REQUEST_STOP, "", into(stop));
    upstream_requests_add(TAVOR_REQUEST_STOP, "", nullptr);
    ASSERT_NE(upstream_requests_next(), nullptr);
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_STOP);
    upstream_requests_sent();
    EXPECT_EQ(upstream_requests_next(), nullptr); // one stop at a time

    EXPECT_TRUE(answer(TAVOR_CODE_CHIP, TAVOR_VALUE_FAILED));
    EXPECT_EQ(command, TAVOR_VALUE_FAILED);
    EXPECT_EQ(upstream_requests_next(), nullptr); // after the stop
    EXPECT_TRUE(answer(TAVOR_CODE_STOP, 0));
    EXPECT_EQ(stop, 0);
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_SAVE_LOCATION);
}

TEST_F(RelayRequests, AStopGoesOutBehindTheStartInFrontOfItThatIsOut) {
    upstream_requests_add(TAVOR_REQUEST_START, "", nullptr);
    upstream_requests_add(TAVOR_REQUEST_STOP, "", nullptr);
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_START);
    upstream_requests_sent();
    ASSERT_NE(upstream_requests_next(), nullptr);
    EXPECT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_STOP);
}

TEST_F(RelayRequests, AStartThatWaitsForWhatHangsFailsWhenAStopPassesIt) {
    int64_t before = kNone;
    int64_t behind = kNone;
    upstream_requests_add(TAVOR_REQUEST_DOWNLOAD, "", nullptr);
    upstream_requests_sent();
    upstream_requests_add(TAVOR_REQUEST_START, "", into(before));
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", nullptr);
    upstream_requests_add(TAVOR_REQUEST_STOP, "", nullptr);
    upstream_requests_add(TAVOR_REQUEST_START, "", into(behind));
    ASSERT_NE(upstream_requests_next(), nullptr);
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_STOP);
    EXPECT_EQ(before, kNone);
    upstream_requests_sent();
    EXPECT_EQ(before, TAVOR_VALUE_FAILED);
    EXPECT_TRUE(answer(TAVOR_CODE_DOWNLOAD, TAVOR_VALUE_FAILED));
    EXPECT_TRUE(answer(TAVOR_CODE_STOP, 0));
    ASSERT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_SAVE_LOCATION);
    upstream_requests_sent();
    EXPECT_TRUE(answer(TAVOR_CODE_SAVE_LOCATION, 0));
    EXPECT_EQ(behind, kNone);
    ASSERT_NE(upstream_requests_next(), nullptr);
    EXPECT_EQ(upstream_requests_next()->type, TAVOR_REQUEST_START);
}

TEST_F(RelayRequests, AStopThatIsNotAnsweredFailsToo) {
    int64_t stop = kNone;
    upstream_requests_add(TAVOR_REQUEST_STOP, "", into(stop));
    upstream_requests_sent();
    upstream_requests_lost();
    EXPECT_EQ(stop, TAVOR_VALUE_FAILED);
    EXPECT_FALSE(upstream_requests_busy());
}

TEST_F(RelayRequests, WithoutADaemonTheyWaitForTwoSeconds) {
    int64_t result = kNone;
    const auto began = RelayClock::now();
    upstream_requests_add(TAVOR_REQUEST_STOP, "", into(result));
    ASSERT_TRUE(expire_until([&] { return result != kNone; }, false));
    EXPECT_EQ(result, TAVOR_VALUE_FAILED);
    EXPECT_GE(RelayClock::now() - began, 2 * kShortSecond);
    EXPECT_LT(RelayClock::now() - began, 45 * kShortSecond);
}

TEST_F(RelayRequests, WhatWasAskedOfADaemonThatEndedFails) {
    int64_t result = kNone;
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(result));
    upstream_requests_sent();
    upstream_requests_lost();
    EXPECT_EQ(result, TAVOR_VALUE_FAILED);
    EXPECT_FALSE(upstream_requests_busy());
}

TEST_F(RelayRequests, TwoHundredFiftySixWaitAndOneStart) {
    for (int i = 0; i < 256; ++i) {
        ASSERT_TRUE(upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", nullptr));
    }
    EXPECT_FALSE(upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", nullptr));
    EXPECT_TRUE(upstream_requests_add(TAVOR_REQUEST_START, "", nullptr));
}

TEST_F(RelayRequests, AnUnknownTypeIsNoRequest) {
    EXPECT_FALSE(upstream_requests_add(10, "", nullptr));
    EXPECT_EQ(upstream_requests_code(0xFFFFFFFF), std::nullopt);
    EXPECT_EQ(upstream_requests_code(TAVOR_REQUEST_ASSIST), TAVOR_CODE_ASSIST);
}

TEST_F(RelayRequests, AnAskerMayAskAgainWhenItIsTold) {
    int64_t again = kNone;
    upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", [&](uint32_t /*unused*/) {
        upstream_requests_add(TAVOR_REQUEST_SAVE_LOCATION, "", into(again));
    });
    upstream_requests_sent();
    EXPECT_TRUE(answer(TAVOR_CODE_SAVE_LOCATION, 0));
    ASSERT_NE(upstream_requests_next(), nullptr);
    upstream_requests_sent();
    EXPECT_TRUE(answer(TAVOR_CODE_SAVE_LOCATION, 4));
    EXPECT_EQ(again, 4);
}

} // namespace
