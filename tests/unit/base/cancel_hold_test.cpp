#include "base/cancel_hold.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

TEST(CancelHold, OutermostHoldGivesBackWhatTheThreadHadBefore) {
    int state = -1;
    {
        const CancelHold outer;
        { const CancelHold inner; }
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
    }
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
}

// Runs the body on a thread that is cancelled. Returns whether the cancellation ended it.
static bool is_cancelled(void* (*body)(void*)) {
    pthread_t thread{};
    EXPECT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
    pthread_cancel(thread);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    return result == PTHREAD_CANCELED;
}

constexpr int kManyRounds = 20000; // of a millisecond

TEST(CancelHold, OfferInsideTwoHoldsIsTakenWhenTheirCallerAllowsIt) {
    EXPECT_TRUE(is_cancelled([](void*) -> void* {
        const CancelHold outer;
        const CancelHold inner;
        for (int round = 0; round < kManyRounds; ++round) {
            cancel_hold_offer();
            usleep(1000);
        }
        return nullptr;
    }));
}

TEST(CancelHold, OfferIsNoneWhereTheCallerHeldCancellationOffItself) {
    EXPECT_FALSE(is_cancelled([](void*) -> void* {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        const CancelHold hold;
        for (int round = 0; round < 50; ++round) {
            cancel_hold_offer();
            usleep(1000);
        }
        return nullptr;
    }));
}
