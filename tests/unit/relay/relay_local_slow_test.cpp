// Local clients that do not read.
#include "hub/hub.h"
#include "local/local_clients.h"
#include "relay_local_fixture.h"
#include "support/nobody.h"
#include "support/wait.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <unistd.h>
#include <vector>

namespace {

// What the relay gets of a kernel as it comes, without rights: 332 datagrams.
constexpr int kUsualBuffer = 212992;

// The kernel bounds what waits for the one, and not for the other.
struct RelaySlowClient : RelayLocal, testing::WithParamInterface<bool> {
    RelaySlowClient()
        : RelayLocal(kShortSecond, kUsualBuffer),
          slow(std::make_unique<PlayedClient>(loop.local_path, abstract_address(unique("slow")),
                                              GetParam())) {}

    // Pushes numbered sentences, which others read, until the condition holds.
    bool push_until(PlayedClient& quick, const std::function<bool()>& condition) {
        return wait_until([&] {
            for (int i = 0; i < 20; ++i) {
                push(TAVOR_CODE_NMEA, numbered(pushed++));
            }
            return has_all(quick) && condition();
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
    ASSERT_TRUE(push_until(*quick, [] { return hub_counters().let_go == 1; }));
    EXPECT_GE(RelayClock::now() - began, 10 * kShortSecond);
    ASSERT_TRUE(loop.until([] { return hub_counters().local_consumers == 1; }));
    slow->read();
    ASSERT_TRUE(loop.until([] { return local_clients_count() == 1; }));
    EXPECT_EQ(hub_counters().let_go, 1U);
}

INSTANTIATE_TEST_SUITE_P(Both, RelaySlowClient, testing::Bool(),
                         [](const auto& one) { return one.param ? "Connected" : "Unconnected"; });

TEST_P(RelaySlowClient, DoesNotPauseWhoHasLeftLittleUnread) {
    const auto quick = client("quick");
    ASSERT_TRUE(started(*slow));
    ASSERT_TRUE(started(*quick));
    ASSERT_TRUE(push_until(*quick, [] { return hub_counters().dropped_local > 0; }));
    quick->read();
    ASSERT_TRUE(loop.until([&] { return known("quick").unread == 0; }));
    for (int i = 0; i < 100; ++i) { // more than waits for it
        push(TAVOR_CODE_NMEA, numbered(pushed++));
    }
    EXPECT_TRUE(has_all(*quick));
}

// Clients that hold what they can of the buffer that all share.
struct RelaySilentClients : RelayLocal {
    explicit RelaySilentClients(std::chrono::milliseconds second = kShortSecond)
        : RelayLocal(second, kUsualBuffer), quick(client("quick")) {}

    void SetUp() override {
        ASSERT_TRUE(started(*quick));
    }

    void add_silent(int count) {
        for (int i = 0; i < count; ++i) {
            silent.push_back(client("silent" + std::to_string(silent.size())));
            ASSERT_TRUE(started(*silent.back()));
        }
    }

    // Pushes sentences, each when the quick one has the one before.
    void push_to_quick(int count) const {
        for (int i = 0; i < count; ++i) {
            push(TAVOR_CODE_NMEA, numbered(i));
            ASSERT_TRUE(loop.until([&] {
                quick->read();
                return text_of(quick->got.back()) == numbered(i);
            })) << i;
        }
        EXPECT_EQ(hub_counters().items, quick->count(TAVOR_CODE_NMEA) - 1);
    }

    // What each of the silent ones has left unread.
    std::vector<size_t> read_silent() const {
        std::vector<size_t> held;
        for (const auto& one : silent) {
            const size_t before = one->got.size();
            one->read();
            held.push_back(one->got.size() - before);
        }
        return held;
    }

    std::unique_ptr<PlayedClient> quick;
    std::vector<std::unique_ptr<PlayedClient>> silent;
};

TEST_F(RelaySilentClients, OneTakesNoneOfTheRoomOfOthers) {
    add_silent(1);
    push_to_quick(1000);
}

TEST_F(RelaySilentClients, ManyThatAreFilledEvenlyTakeNoneOfTheRoomOfOthers) {
    add_silent(100);
    push_to_quick(30);
    const std::vector<size_t> held = read_silent();
    EXPECT_LE(std::accumulate(held.begin(), held.end(), size_t{0}), 332U - 101U)
        << "one more for each has room";
}

// Each is disconnected with its share unread, and others come: these find less room, as if the first were
// there.
TEST_F(RelaySilentClients, ThoseThatHaveLeftStillCount) {
    for (uint64_t round = 1; round <= 2; ++round) {
        for (int i = 0; i < 8; ++i) {
            const std::string name = "silent" + std::to_string(silent.size());
            add_silent(1);
            for (int sent = 0; sent < 150; ++sent) {
                local_clients_send(known(name), relay_response(TAVOR_CODE_NMEA, 0, numbered(sent)));
            }
        }
        push_to_quick(1);
        ASSERT_TRUE(loop.until([&] { return hub_counters().let_go == 8 * round; }));
    }
    push_to_quick(30);
    const std::vector<size_t> held = read_silent();
    EXPECT_LE(held[8], held[7] + 1) << "the first one of the second round";
}

// Takes all places.
struct RelayNoPlace : RelaySilentClients {
    RelayNoPlace() : RelaySilentClients(std::chrono::seconds(1)) {}
};

TEST_F(RelayNoPlace, WhoFindsNoneTakesNoRoom) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    for (int i = 1; i < 1024; ++i) {
        local_clients_subscribe(local_clients_of("another " + std::to_string(i), 1), kLocalAssistance);
    }
    as_nobody([&] {
        const auto late = client("late");
        for (int i = 0; i < 500; ++i) {
            ASSERT_TRUE(loop.until([&] { return late->send(TAVOR_REQUEST_SAVE_LOCATION); }));
        }
        push_to_quick(10);
    });
}

// Far more than the buffer holds comes before the first look at who has read.
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
