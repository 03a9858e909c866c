#include "service/tavor_reply.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSecond = 1000 * kMs;

TavorPeer peer(const std::string& name) {
    TavorPeer made = {};
    made.address.sun_family = AF_UNIX;
    name.copy(made.address.sun_path, sizeof made.address.sun_path);
    made.length = static_cast<socklen_t>(sizeof(sa_family_t) + name.size() + 1);
    return made;
}

struct ReplyTest : testing::Test {
    // One send that lasts so long; the clock runs on. Returns how long it was allowed to wait.
    uint32_t send(const TavorPeer& to, uint64_t lasts_us, bool sent) {
        ReplyBudget* budget = tavor_reply_budget(&budgets, to, now_us);
        const uint32_t wait_us = tavor_reply_wait(*budget);
        tavor_reply_done(budget, now_us, now_us + lasts_us, sent);
        now_us += lasts_us;
        return wait_us;
    }
    uint32_t wait_of(const TavorPeer& of) {
        return tavor_reply_wait(*tavor_reply_budget(&budgets, of, now_us));
    }

    ReplyBudgets budgets = {};
    uint64_t now_us = 5 * kSecond;
};

} // namespace

TEST_F(ReplyTest, NewClientMayWaitOneSecond) {
    EXPECT_EQ(wait_of(peer("a")), 1 * kSecond);
}

TEST_F(ReplyTest, WaitIsRoundedToTheNearestStep) {
    const struct {
        uint32_t left_us;
        uint32_t wait_us;
    } rows[] = {
        {1000000, 1000000}, {950000, 1000000}, {949999, 900000}, {150000, 200000}, {149999, 100000},
        {50000, 100000},    {49999, 0},        {1, 0},           {0, 0},
    };
    for (const auto& row : rows) {
        ReplyBudget budget = {};
        budget.left_us = row.left_us;
        EXPECT_EQ(tavor_reply_wait(budget), row.wait_us) << row.left_us;
    }
}

TEST_F(ReplyTest, WaitedTimeIsTakenFromTheBudget) {
    const TavorPeer a = peer("a");
    send(a, 300 * kMs, false);
    EXPECT_EQ(wait_of(a), 700 * kMs);
    send(a, 500 * kMs, false);
    EXPECT_EQ(wait_of(a), 200 * kMs);
}

TEST_F(ReplyTest, UsedUpBudgetLetsNoSendWaitHoweverMuchTimePasses) {
    const TavorPeer a = peer("a");
    EXPECT_EQ(send(a, 1000 * kMs, false), 1 * kSecond);
    for (int i = 0; i < 500; i++) {
        now_us += 10 * kSecond;
        EXPECT_EQ(send(a, 5, false), 0U);
    }
}

TEST_F(ReplyTest, TimeBeforeTheFirstSuccessAfterFailuresCountsForNothing) {
    const TavorPeer a = peer("a");
    send(a, 1000 * kMs, false);
    now_us += 3600 * kSecond;
    send(a, 0, true);
    EXPECT_EQ(tavor_reply_budget(&budgets, a, now_us)->left_us, kReplySentCreditUs);
}

TEST_F(ReplyTest, TenthOfTheTimeBetweenSuccessesComesBack) {
    const TavorPeer a = peer("a");
    send(a, 1000 * kMs, false);
    send(a, 0, true);
    now_us += 2 * kSecond;
    send(a, 0, true);
    EXPECT_EQ(tavor_reply_budget(&budgets, a, now_us)->left_us, 200 * kMs + 2ULL * kReplySentCreditUs);
}

TEST_F(ReplyTest, BudgetNeverExceedsOneSecond) {
    const TavorPeer a = peer("a");
    for (int i = 0; i < 10; i++) {
        now_us += 100 * kSecond;
        send(a, 0, true);
        EXPECT_EQ(wait_of(a), 1 * kSecond);
    }
}

TEST_F(ReplyTest, ClientThatReadsBehindAFastStreamLosesNothing) {
    const TavorPeer a = peer("a");
    for (int burst = 0; burst < 10000; burst++) {
        ASSERT_GT(send(a, 15 * kMs, true), 15 * kMs)
            << burst; // until the client's turn on a busy machine comes
        for (int i = 0; i < 9; i++) {
            send(a, 20, true);
        }
    }
}

TEST_F(ReplyTest, ClientThatTricklesCanNotHoldEverySendUp) {
    const TavorPeer a = peer("a");
    uint64_t waited_us = 0;
    for (int i = 0; i < 700; i++) {
        const uint32_t allowed = tavor_reply_wait(*tavor_reply_budget(&budgets, a, now_us));
        const uint64_t lasts = allowed < 50 * kMs ? 0 : 50 * kMs;
        waited_us += lasts;
        send(a, lasts, lasts > 0);
    }
    EXPECT_LE(waited_us, 3 * kSecond);
}

TEST_F(ReplyTest, ClockThatStepsBackCostsNothing) {
    const TavorPeer a = peer("a");
    ReplyBudget* budget = tavor_reply_budget(&budgets, a, now_us);
    tavor_reply_done(budget, now_us, now_us - 500 * kMs, true);
    EXPECT_EQ(budget->left_us, kReplyBudgetUs);
}

TEST_F(ReplyTest, ClientsHaveBudgetsOfTheirOwn) {
    send(peer("a"), 1000 * kMs, false);
    EXPECT_EQ(wait_of(peer("b")), 1 * kSecond);
    EXPECT_EQ(wait_of(peer("a")), 0U);
}

TEST_F(ReplyTest, AddressesDifferByLengthAndByEachByteInUse) {
    TavorPeer longer = peer("a");
    longer.length += 1;
    send(peer("a"), 1000 * kMs, false);
    EXPECT_EQ(wait_of(longer), 1 * kSecond);

    TavorPeer noise_behind = peer("a");
    noise_behind.address.sun_path[50] = 'x';
    EXPECT_EQ(wait_of(noise_behind), 0U);
}

TEST_F(ReplyTest, LengthsAboveTheAddressStructureAreNotReadBeyondIt) {
    TavorPeer huge = peer("a");
    huge.length = 4000;
    send(huge, 1000 * kMs, false);
    EXPECT_EQ(wait_of(huge), 0U);
}

TEST_F(ReplyTest, TheEightLatestClientsAreRemembered) {
    send(peer("stalled"), 1000 * kMs, false);
    for (int i = 0; i < 7; i++) {
        send(peer(std::to_string(i)), 0, true);
    }
    EXPECT_EQ(wait_of(peer("stalled")), 0U); // now the latest again
    for (int i = 0; i < 7; i++) {
        send(peer("other" + std::to_string(i)), 0, true);
    }
    EXPECT_EQ(wait_of(peer("stalled")), 0U);
    for (int i = 0; i < 8; i++) {
        send(peer("third" + std::to_string(i)), 0, true);
    }
    EXPECT_EQ(wait_of(peer("stalled")), 1 * kSecond);
}
