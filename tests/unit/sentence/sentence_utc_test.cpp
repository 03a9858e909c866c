// Times of day, dates, and the moments that they make.
#include "sentence/utc.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using std::chrono::milliseconds;

std::string day_of(const std::string& text) {
    const auto day = utc_day(text);
    return day ? utc_iso(*day).substr(0, 10) : "none";
}

std::string zda_day_of(const std::string& fields) {
    const std::string text = "$GPZDA,120000.00," + fields;
    const auto day = utc_day_of_zda(sentence_split(text));
    return day ? utc_iso(*day).substr(0, 10) : "none";
}

} // namespace

TEST(SentenceUtc, TimeHasSecondsOfTwoDigitsAndAnyPartOfOne) {
    EXPECT_EQ(utc_time("000000"), milliseconds(0));
    EXPECT_EQ(utc_time("151620.50"), milliseconds(54980500));
    EXPECT_EQ(utc_time("151620.9996"), milliseconds(54981000)) << "rounded to the next";
    EXPECT_EQ(utc_time("235960.0"), milliseconds(86400000)) << "a leap second";
    for (const char* bad : {"", "1", "12345", "240000", "126000", "123461", "12a456", "123456x", "-12345",
                            "12345.5", "1234567", "123456,5", "1234-5"}) {
        EXPECT_FALSE(utc_time(bad)) << bad;
    }
}

TEST(SentenceUtc, DayIsOneOfTheCalendarAndOfThisCentury) {
    EXPECT_EQ(day_of("290224"), "2024-02-29");
    EXPECT_EQ(day_of("230394"), "2094-03-23");
    for (const char* bad : {"", "311126", "001126", "0111260", "aa1126", "290226", "2902-4"}) {
        EXPECT_EQ(day_of(bad), "none") << bad;
    }
}

TEST(SentenceUtc, ZdaTellsTheWholeYear) {
    EXPECT_EQ(zda_day_of("21,11,2026,00,00"), "2026-11-21");
    for (const char* bad : {"", ",,,,", "21,11,26", "31,11,2026", "1,11,2026", "21,11,-026", "21,11"}) {
        EXPECT_EQ(zda_day_of(bad), "none") << bad;
    }
}

TEST(SentenceUtc, TimeOfDayIsOfTheDayThatIsNearest) {
    const Utc late = utc_of_iso("2026-12-31T23:59:59.500Z").value();
    EXPECT_EQ(utc_iso(utc_nearest(milliseconds(0), late)), "2027-01-01T00:00:00.000Z");
    EXPECT_EQ(utc_iso(utc_nearest(milliseconds(86399500), late)), "2026-12-31T23:59:59.500Z");
    const Utc early = utc_of_iso("2024-03-01T00:00:01.000Z").value();
    EXPECT_EQ(utc_iso(utc_nearest(milliseconds(86399000), early)), "2024-02-29T23:59:59.000Z");
}

TEST(SentenceUtc, IsoTextIsReadOnlyAsItIsWritten) {
    for (const char* good : {"2026-11-21T15:16:20.000Z", "1970-01-01T00:00:00.001Z"}) {
        const auto moment = utc_of_iso(good);
        ASSERT_TRUE(moment) << good;
        EXPECT_EQ(utc_iso(*moment), good);
    }
    for (const char* bad :
         {"", "2026-11-21T15:16:20Z", "2026-11-21T15:16:20.000", "2026-11-21 15:16:20.000Z",
          "+026-11-21T15:16:20.000Z", "2026--1-21T15:16:20.000Z", "2026-11-31T15:16:20.000Z",
          "2026-11-21T24:00:00.000Z", "2026-11-21T15:60:00.000Z", "2026-11-21T15:16:20.000Zx"}) {
        EXPECT_FALSE(utc_of_iso(bad)) << bad;
    }
}
