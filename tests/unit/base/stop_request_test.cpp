#include "base/stop_request.h"

#include <gtest/gtest.h>

TEST(StopRequest, StandsUntilEachAnnouncementIsTakenBack) {
    EXPECT_FALSE(stop_request_pending());
    stop_request_announce();
    stop_request_announce();
    EXPECT_TRUE(stop_request_pending());
    stop_request_withdraw();
    EXPECT_TRUE(stop_request_pending());
    stop_request_withdraw();
    EXPECT_FALSE(stop_request_pending());
}

TEST(StopRequest, AnnouncementTakenAsideLeavesOnlyThoseOfOthers) {
    stop_request_announce();
    {
        const StopRequestAside own;
        EXPECT_FALSE(stop_request_pending());
        stop_request_announce();
        EXPECT_TRUE(stop_request_pending());
        stop_request_withdraw();
    }
    EXPECT_TRUE(stop_request_pending());
    stop_request_withdraw();
    EXPECT_FALSE(stop_request_pending());
}
