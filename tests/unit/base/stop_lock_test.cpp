#include "base/stop_lock.h"

#include "base/stop_request.h"
#include "support/test_limit.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

namespace {

struct StopLock : testing::Test {
    const TestLimit limit;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace

TEST_F(StopLock, FreeMutexIsTakenAlsoWhileAStopIsPending) {
    const StopRequest stop;
    EXPECT_TRUE(stop_lock_take(&mutex));
    EXPECT_NE(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
}

TEST_F(StopLock, WaitEndsWithAPendingStopAndTakesNothing) {
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    bool taken = true;
    std::thread waiter([&] { taken = stop_lock_take(&mutex); });
    {
        const StopRequest stop;
        waiter.join();
    }
    EXPECT_FALSE(taken);
    pthread_mutex_unlock(&mutex);
}

TEST_F(StopLock, WaitGoesOnOverManyRoundsUntilTheMutexIsFree) {
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    std::thread waiter([&] {
        EXPECT_TRUE(stop_lock_take(&mutex));
        pthread_mutex_unlock(&mutex);
    });
    for (int round = 0; round < 3; ++round) {
        EXPECT_FALSE(stop_lock_round(&mutex)); // one passes for the waiter too
    }
    pthread_mutex_unlock(&mutex);
    waiter.join();
}
