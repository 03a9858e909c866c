#include "hub/hub.h"

#include "support/relay_loop.h"

#include <gtest/gtest.h>

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
    ASSERT_TRUE(loop.until([&] { return got.size() == 1024; }));
    EXPECT_EQ(got[0], "result");
    EXPECT_EQ(got[1], "77");
    EXPECT_EQ(got.back(), "1099");
}

TEST_F(RelayHub, AnAnswerToNobodyIsNoItem) {
    hub_put(relay_response(TAVOR_CODE_START, 0));
    hub_put(relay_response(77, 0));
    EXPECT_EQ(hub_counters().items, 0U);
    EXPECT_EQ(hub_counters().malformed, 2U);
}

} // namespace
