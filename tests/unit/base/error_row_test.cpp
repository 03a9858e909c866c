#include "base/error_row.h"

#include <gtest/gtest.h>

TEST(ErrorRow, TellsTheFirstErrorAndThenOneASecondWithTheCountOfThoseLeftOut) {
    ErrorRow row;
    uint32_t left_out = 9;
    EXPECT_TRUE(error_row_tell(&row, 5, &left_out));
    EXPECT_EQ(left_out, 0U);
    EXPECT_FALSE(error_row_tell(&row, 5, &left_out));
    EXPECT_FALSE(error_row_tell(&row, 1004, &left_out));
    EXPECT_TRUE(error_row_tell(&row, 1005, &left_out));
    EXPECT_EQ(left_out, 2U);
    EXPECT_TRUE(error_row_tell(&row, 2005, &left_out));
    EXPECT_EQ(left_out, 0U);
}

TEST(ErrorRow, ASuccessEndsIt) {
    ErrorRow row;
    uint32_t left_out = 0;
    EXPECT_EQ(error_row_end(&row), 0U);
    error_row_tell(&row, 5, &left_out);
    error_row_tell(&row, 6, &left_out);
    EXPECT_EQ(error_row_end(&row), 1U);
    EXPECT_EQ(error_row_end(&row), 0U);
    EXPECT_TRUE(error_row_tell(&row, 7, &left_out));
    EXPECT_EQ(left_out, 0U);
}
