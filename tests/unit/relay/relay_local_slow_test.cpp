// Local clients that do not read.
#include "hub/hub.h"
#include "local/local_clients.h"
#include "relay_local_fixture.h"
#include "support/wait.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The kernel bounds what waits for the one, and not for the other.
struct RelaySlowClient : RelayLocal, testing::WithParamInterface<bool> {
    RelaySlowClient()
        : RelayLocal(kShortSecond, 8 * 1024 * 1024), // a quarter of it is filled soon
          slow(std::make_unique<PlayedClient>(loop.local_path, abstract_address(unique("slow")),
                                              GetParam())) {}

    // Pushes numbered sentences, which others read, until the condition holds.
    bool push_until(PlayedClient& quick, const std::function<bool()>& condition) {
        return wait_until([&] {
            for (int i = 0; i < 20; ++i) {
                push(TAVOR_CODE_NMEA, numbered(pushed++));
                quick.read();
            }
            return condition();
        });
    }

    // Turns until the client has each sentence that was pushed, and the banner.
    bool has_all(PlayedClient& client) const {
        return loop.until([&] {
            client.read();
            return client.count(TAVOR_CODE_NMEA) == 1U + static_cast<size_t>(pushed);
        });
    }

    std::unique_ptr<PlayedClient> slow;
    int pushed = 0;
};

TEST_P(RelaySlowClient, LosesTheOldestSentencesAndNoResultAndHoldsUpNobody) {
    const auto quick = client("quick");
    ASSERT_TRUE(started(*slow));
    ASSERT_TRUE(started(*quick));
    ASSERT_TRUE(push_until(*quick, [] { return hub_counters().dropped_local > 0; }));
    ASSERT_TRUE(slow->send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
    loop.turn_for(kShortSecond);
    ASSERT_TRUE(push_until(*quick, [] { return hub_counters().dropped_local > 200; }));

    ASSERT_TRUE(answered(*slow, TAVOR_CODE_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] {
        slow->read();
        return text_of(slow->got.back()) == numbered(pushed - 1);
    }));
    EXPECT_EQ(slow->count(TAVOR_CODE_NMEA) + hub_counters().dropped_local, 1U + static_cast<size_t>(pushed));
    for (int i = 0; i < 64; ++i) { // the newest are whole and in order
        const size_t place = slow->got.size() - 1 - static_cast<size_t>(i);
        EXPECT_EQ(text_of(slow->got[place]), numbered(pushed - 1 - i));
    }
    EXPECT_TRUE(has_all(*quick));
}

TEST_P(RelaySlowClient, IsLetGoWhenItReadsNothingForThirtySeconds) {
    const auto quick = client("quick");
    ASSERT_TRUE(started(*slow));
    ASSERT_TRUE(started(*quick));
    ASSERT_TRUE(push_until(*quick, [] { return hub_counters().dropped_local > 0; }));
    const auto began = RelayClock::now();
    ASSERT_TRUE(push_until(*quick, [] { return local_clients_count() == 1; }));
    EXPECT_GE(RelayClock::now() - began, 10 * kShortSecond);
    EXPECT_EQ(hub_counters().let_go, 1U);
    EXPECT_EQ(hub_counters().local_consumers, 1U);
}

INSTANTIATE_TEST_SUITE_P(Both, RelaySlowClient, testing::Bool(),
                         [](const auto& one) { return one.param ? "Connected" : "Unconnected"; });

TEST_P(RelaySlowClient, DoesNotPauseWhoHasLeftLittleUnread) {
    const auto quick = client("quick");
    ASSERT_TRUE(started(*slow));
    ASSERT_TRUE(started(*quick));
    ASSERT_TRUE(push_until(*quick, [] { return hub_counters().dropped_local > 0; }));
    const uint16_t family = AF_UNIX;
    const std::string address = std::string(reinterpret_cast<const char*>(&family), sizeof family) +
                                abstract_address(unique("quick"));
    quick->read();
    ASSERT_TRUE(loop.until([&] { return local_clients_of(address, geteuid()).unread == 0; }));
    for (int i = 0; i < 200; ++i) {
        push(TAVOR_CODE_NMEA, numbered(pushed++));
    }
    EXPECT_TRUE(has_all(*quick));
}

// Everybody's room is filled long before the first look at who has read.
struct RelayFlood : RelayLocal {
    RelayFlood() : RelayLocal(std::chrono::seconds(1), 1024 * 1024) {}
};

TEST_F(RelayFlood, WhoAsksOnAndOnAndReadsNothingLeavesRoomForOthers) {
    const auto quick = client("quick");
    ASSERT_TRUE(started(*quick));
    const auto flood = client("flood");
    for (int i = 0; i < 3000; ++i) { // a result and a banner each: three times the room
        ASSERT_TRUE(loop.until([&] { return flood->send(TAVOR_REQUEST_START); }));
    }
    for (int i = 0; i < 100; ++i) {
        push(TAVOR_CODE_NMEA, numbered(i));
    }
    ASSERT_TRUE(loop.until([&] {
        quick->read();
        return text_of(quick->got.back()) == numbered(99);
    }));
    EXPECT_EQ(quick->count(TAVOR_CODE_NMEA), 101U);
}

TEST_F(RelayLocal, WhatTheChipSaysUnaskedIsNoResult) {
    PlayedClient away(loop.local_path, abstract_address(unique("away")), false);
    ASSERT_TRUE(started(away));
    ASSERT_TRUE(wait_until([&] {
        push(TAVOR_CODE_CHIP, "$PZUL010,1*00\r\n");
        return hub_counters().dropped_local + hub_counters().let_go > 0;
    }));
    EXPECT_EQ(hub_counters().let_go, 0U);
    push(TAVOR_CODE_NMEA, numbered(1));
    ASSERT_TRUE(loop.until([&] {
        away.read();
        return text_of(away.got.back()) == numbered(1);
    }));
}

} // namespace
