#include "hub/hub.h"

#include "support/relay_loop.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

struct RelayHub : testing::Test {
    RelayHub() {
        hub_open(loop.base.get());
        hub_take([this](const HubItem& item) { got.emplace_back(hub_text(item)); });
    }

    RelayLoop loop;
    std::vector<std::string> got;
};

TEST_F(RelayHub, HandsOutInOrderToEveryOutput) {
    std::vector<HubKind> kinds;
    hub_take([&](const HubItem& item) { kinds.push_back(item.kind); });
    hub_put(relay_response(TAVOR_CODE_POSITION, 0, "121530.00"));
    hub_put(relay_response(TAVOR_CODE_NMEA, 0, "$GNGGA\r\n"));
    hub_put(relay_response(TAVOR_CODE_CHIP, 0, "$PZUL\r\n"));
    hub_put(relay_response(TAVOR_CODE_ASSIST_RESULT, 0));
    EXPECT_TRUE(got.empty());
    hub_hand_out();
    ASSERT_TRUE(loop.until([&] { return kinds.size() == 4; }));
    EXPECT_EQ(got, (std::vector<std::string>{"121530.00", "$GNGGA\r\n", "$PZUL\r\n", ""}));
    EXPECT_EQ(kinds, (std::vector<HubKind>{HubKind::kPosition, HubKind::kSentence, HubKind::kChip,
                                           HubKind::kAssistance}));
}

TEST_F(RelayHub, TheOldestSentenceGoesWhenTooManyWait) {
    hub_put(relay_response(TAVOR_CODE_ASSIST_RESULT, 0, "result"));
    for (int i = 0; i < 1100; ++i) {
        hub_put(relay_response(TAVOR_CODE_NMEA, 0, std::to_string(i)));
    }
    EXPECT_EQ(hub_counters().dropped_in, 77U);
    hub_hand_out();
    ASSERT_TRUE(loop.until([&] { return got.size() == 1024; }));
    EXPECT_EQ(got[0], "result");
    EXPECT_EQ(got[1], "77");
    EXPECT_EQ(got.back(), "1099");
}

TEST_F(RelayHub, WhatComesAfterIsCalledInItsPlaceAndNeverDropped) {
    hub_after([this] { got.emplace_back("at once"); });
    hub_put(relay_response(TAVOR_CODE_NMEA, 0, "0"));
    hub_after([this] { got.emplace_back("call"); });
    for (int i = 1; i < 1100; ++i) {
        hub_put(relay_response(TAVOR_CODE_NMEA, 0, std::to_string(i)));
    }
    hub_hand_out();
    ASSERT_TRUE(loop.until([&] { return got.back() == "1099"; }));
    EXPECT_EQ(got.size(), 1026U);
    EXPECT_EQ(got[0], "at once");
    EXPECT_EQ(got[1], "call");
    EXPECT_EQ(got[2], "76");
}

TEST_F(RelayHub, WhatIsCalledAfterTakesNoItemsPlace) {
    for (int i = 0; i < 600; ++i) {
        hub_put(relay_response(TAVOR_CODE_NMEA, 0, std::to_string(i)));
        hub_after([] {});
    }
    EXPECT_EQ(hub_counters().dropped_in, 0U);
}

TEST_F(RelayHub, CallsAfterTheLastItemOnly) {
    hub_take_rest([this] { got.emplace_back("rest"); });
    hub_put(relay_response(TAVOR_CODE_NMEA, 0, "one"));
    hub_put(relay_response(TAVOR_CODE_NMEA, 0, "two"));
    hub_hand_out();
    ASSERT_TRUE(loop.until([&] { return got.size() >= 3; }));
    EXPECT_EQ(got, (std::vector<std::string>{"one", "two", "rest"}));
}

TEST_F(RelayHub, TheDaemonIsHeardBetweenSlowItems) {
    const EventPtr daemon(event_new(
        loop.base.get(), -1, 0,
        [](evutil_socket_t, short, void* heard) {
            static_cast<std::vector<std::string>*>(heard)->emplace_back("heard");
        },
        &got));
    event_priority_set(daemon.get(), kPriorityUpstream);
    hub_take([&](const HubItem& /*unused*/) {
        const auto began = std::chrono::steady_clock::now();
        event_active(daemon.get(), 0, 0);
        while (std::chrono::steady_clock::now() - began < std::chrono::milliseconds(2)) { // a slow output
        }
    });
    hub_put(relay_response(TAVOR_CODE_NMEA, 0, "one"));
    hub_put(relay_response(TAVOR_CODE_POSITION, 0, "position"));
    hub_put(relay_response(TAVOR_CODE_NMEA, 0, "its sentence"));
    hub_hand_out();
    ASSERT_TRUE(loop.until([&] { return got.size() >= 5; }));
    EXPECT_EQ(got, (std::vector<std::string>{"one", "heard", "position", "its sentence", "heard"}));
}

TEST_F(RelayHub, TheDaemonIsHeardAmongManyThatAreServed) {
    struct Turn {
        std::vector<std::string>& got;
        int daemons_end;
    };
    const int daemons_end = eventfd(0, EFD_CLOEXEC);
    Turn turn{got, daemons_end};
    const EventPtr daemon(event_new(
        loop.base.get(), daemons_end, EV_READ,
        [](evutil_socket_t, short, void* to) { static_cast<Turn*>(to)->got.emplace_back("heard"); }, &turn));
    event_priority_set(daemon.get(), kPriorityUpstream);
    event_add(daemon.get(), nullptr);
    std::vector<EventPtr> others;
    for (int i = 0; i < 20; ++i) {
        others.emplace_back(event_new(
            loop.base.get(), -1, 0,
            [](evutil_socket_t, short, void* to) {
                const Turn& one = *static_cast<Turn*>(to);
                one.got.emplace_back("served");
                eventfd_write(one.daemons_end, 1);
                usleep(2000);
            },
            &turn));
        event_active(others.back().get(), 0, 0);
    }
    ASSERT_TRUE(loop.until([&] { return got.size() == 21; }));
    EXPECT_LT(std::find(got.begin(), got.end(), "heard") - got.begin(), 10);
    close(daemons_end);
}

TEST_F(RelayHub, AnAnswerToNobodyIsNoItem) {
    hub_put(relay_response(TAVOR_CODE_START, 0));
    hub_put(relay_response(77, 0));
    hub_put(
        relay_response(TAVOR_CODE_CHIP, TAVOR_VALUE_FAILED)); // of a command, of which nobody waits any more
    EXPECT_EQ(hub_counters().items, 0U);
    EXPECT_EQ(hub_counters().malformed, 3U);
}

} // namespace
