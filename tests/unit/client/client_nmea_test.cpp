// What sentences say besides the position block.
#include "client/nmea.h"

#include <gtest/gtest.h>

namespace {

Fix fix_of(const std::vector<std::string>& sentences) {
    Fix fix;
    for (const std::string& sentence : sentences) {
        nmea_take(fix, sentence);
    }
    return fix;
}

std::string iso(const Fix& fix, const std::string& time) {
    const auto moment = nmea_moment(fix, time);
    return moment ? utc_iso(*moment) : "none";
}

constexpr char kRmc[] = "$GNRMC,151620.00,A,4317.71149,N,00521.92193,E,15.551,45.61,211126,,,A,V*02\r\n";

} // namespace

TEST(Nmea, EachSentenceTellsItsPart) {
    const Fix fix =
        fix_of({kRmc, "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7D\r\n",
                "$GNGSA,A,3,02,05,07,13,15,18,,,,,,,1.21,0.72,0.97,1*07\r\n"});
    EXPECT_EQ(fix.quality, 1);
    EXPECT_EQ(fix.satellites, 20);
    EXPECT_EQ(fix.hdop, 0.72);
    EXPECT_EQ(fix.pdop, 1.21);
    EXPECT_EQ(fix.vdop, 0.97);
    EXPECT_NEAR(fix.speed.value(), 8.0, 0.001);
    EXPECT_EQ(fix.course, 45.61);
    EXPECT_EQ(utc_iso(fix.dated.value()), "2026-11-21T15:16:20.000Z");
}

TEST(Nmea, KindIsToldWhoeverTalks) {
    Fix fix;
    EXPECT_EQ(nmea_take(fix, "$GPGGA,,,,,,0,,,"), SentenceKind::kFix);
    EXPECT_EQ(nmea_take(fix, "$BDGSA,A"), SentenceKind::kGsa);
    EXPECT_EQ(nmea_take(fix, "$GARMC,"), SentenceKind::kRmc);
    for (const char* other : {"", "$", "GGA", "$GPGGA", "$GPGSV,GGA", "$GPTXT,RMC"}) {
        EXPECT_EQ(nmea_take(fix, other), SentenceKind::kOther) << other;
    }
}

TEST(Nmea, GnsAndZdaTellWhatGgaAndRmcDoNot) {
    Fix fix = fix_of({"$GNGNS,151620.00,4317.71149,N,00521.92193,E,ANRF,21,0.60,12.2,49.8,,,V",
                      "$GNZDA,151620.00,21,11,2026,00,00"});
    EXPECT_EQ(fix.quality, 4) << "the best of the systems";
    EXPECT_EQ(fix.satellites, 21);
    EXPECT_EQ(fix.hdop, 0.6);
    EXPECT_EQ(utc_iso(fix.dated.value()), "2026-11-21T15:16:20.000Z");
    EXPECT_EQ(nmea_take(fix, "$GNGGA,151620.00,,,,,0,00,9.9,,M,,M,,"), SentenceKind::kFix);
    EXPECT_EQ(nmea_take(fix, "$GNGNS,151620.00,,,,,A,21,0.60,,,,,V"), SentenceKind::kOther);
    EXPECT_EQ(fix.quality, 0) << "GGA goes before";
}

TEST(Nmea, TimeIsOfTheDateThatIsNearest) {
    const Fix late = fix_of({"$GNRMC,235959.50,A,,,,,0,0,311226,,,A*00"});
    EXPECT_EQ(iso(late, "235959.50"), "2026-12-31T23:59:59.500Z");
    EXPECT_EQ(iso(late, "000000.00"), "2027-01-01T00:00:00.000Z");
    EXPECT_EQ(iso({}, "120000"), "none") << "no date";
}

TEST(Nmea, AgeIsByTheClockOfThisHost) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto age_of = [&](auto since) { return nmea_age(floor<milliseconds>(now - since), now); };
    EXPECT_NEAR(age_of(milliseconds(2500)).value(), 2.5, 0.01);
    EXPECT_EQ(age_of(milliseconds(-2500)), 0.0) << "a clock a little behind";
    EXPECT_TRUE(age_of(hours(23)));
    EXPECT_FALSE(age_of(hours(25))) << "a clock that is not set";
    EXPECT_FALSE(age_of(hours(-25)));
    EXPECT_FALSE(nmea_age(std::nullopt, now));
}

TEST(Nmea, WhatIsNoGoodValueIsAbsent) {
    const Fix fix = fix_of({kRmc, "$GNGGA,151620,,,,,x,-1,1e9,", "$GNGSA,A,3,,,,,,,,,,,,,nan,,inf",
                            "$GNRMC,251620.00,A,,,,,1.2.3,,321326,"});
    EXPECT_FALSE(fix.quality || fix.satellites || fix.hdop || fix.pdop || fix.vdop || fix.speed ||
                 fix.course);
    EXPECT_EQ(utc_iso(fix.dated.value()), "2026-11-21T15:16:20.000Z") << "the last good one";
    fix_of({std::string(5000, ','), "$GPGGA" + std::string(5000, ',')});
}

TEST(Nmea, AgeOfATimeWithoutADateEndsAtTwelveHours) {
    const std::chrono::system_clock::time_point now =
        std::chrono::sys_days(std::chrono::days(20000)) + std::chrono::hours(10);
    EXPECT_EQ(nmea_age_undated("095930.000", now), 30.0);
    EXPECT_EQ(nmea_age_undated("220100.000", now), 43140.0) << "of the day before";
    EXPECT_EQ(nmea_age_undated("100003.000", now), 0.0) << "the chip's clock may go before";
    EXPECT_FALSE(nmea_age_undated("200000.000", now)) << "14 hours old, not of today's evening";
    EXPECT_FALSE(nmea_age_undated("noise", now));
}
