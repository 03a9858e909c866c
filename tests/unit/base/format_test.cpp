#include "base/format.h"

#include <cstring>
#include <gtest/gtest.h>

TEST(Format, TextIsCutWhereItsRoomEndsAndItsWholeLengthReturned) {
    char text[8];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(format(text, 6, "%s-%d", "abc", 17), 6);
    EXPECT_STREQ(text, "abc-1");
    EXPECT_EQ(text[6], 'x') << "behind the room";
    EXPECT_EQ(format(text, 7, "%s-%d", "abc", 17), 6);
    EXPECT_STREQ(text, "abc-17");
}

TEST(Format, FailureIsNegative) {
    char text[8];
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_LT(format(text, sizeof text, "%ls", no_character), 0);
}
