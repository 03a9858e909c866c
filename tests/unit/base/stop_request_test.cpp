#include "base/stop_request.h"

#include <gtest/gtest.h>

TEST(StopMark, StandsUntilEachAnnouncementIsTakenBack) {
    EXPECT_FALSE(stop_mark_raised());
    stop_mark_raise();
    stop_mark_raise();
    stop_mark_lower();
    EXPECT_TRUE(stop_mark_raised());
    stop_mark_lower();
    EXPECT_FALSE(stop_mark_raised());
}

TEST(StopMark, AnnouncementTakenAsideLeavesOnlyThoseOfOthers) {
    stop_mark_raise();
    {
        const StopMarkAside own;
        EXPECT_FALSE(stop_mark_raised());
        stop_mark_raise();
        EXPECT_TRUE(stop_mark_raised());
        stop_mark_lower();
    }
    EXPECT_TRUE(stop_mark_raised());
    stop_mark_lower();
    EXPECT_FALSE(stop_mark_raised());
}
