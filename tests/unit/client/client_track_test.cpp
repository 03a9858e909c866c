// Points, dates and segments of a track made of sentences.
#include "client/track.h"

#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <utility>

namespace {

using Texts = std::vector<std::string>;
using std::string;

// The sentence with its checksum.
string whole(const string& body) {
    unsigned sum = 0;
    for (const char byte : body) {
        sum ^= static_cast<unsigned char>(byte);
    }
    std::array<char, 8> end = {};
    snprintf(end.data(), end.size(), "*%02X", sum);
    return "$" + body + end.data() + "\r";
}

string gga(const string& time, const string& quality = "1") {
    return whole("GNGGA," + time + ",4317.71149,N,00521.92193,E," + quality + ",20,0.72,12.2,M,49.8,M,,");
}

string rmc(const string& time, const string& date, const string& status = "A") {
    return whole("GNRMC," + time + "," + status + ",4317.71149,S,00521.92193,W,15.551,45.61," + date +
                 ",,,A,V");
}

struct Made {
    Track track;
    std::vector<TrackPoint> points;

    explicit Made(const Texts& lines, Track options = {}) : track(std::move(options)) {
        const TrackVisitor visit = [&](const TrackPoint& point) { points.push_back(point); };
        for (const string& line : lines) {
            track_line(track, line, visit);
        }
        track_end(track, visit);
    }
    // Time of each point, a bar in front of those that begin a segment.
    string times() const {
        string text;
        for (const TrackPoint& point : points) {
            text += (text.empty() ? "" : " ") + string(point.begins ? "|" : "") +
                    (point.time ? utc_iso(*point.time) : "none");
        }
        return text;
    }
};

} // namespace

TEST(Track, SentencesOfOneMomentMakeOnePoint) {
    const Made run({rmc("151620.00", "211126"), gga("151620.00"),
                    whole("GNGSA,A,3,02,05,,,,,,,,,,,1.21,0.72,0.97,1"), rmc("151621.00", "211126"),
                    gga("151621.00")});
    ASSERT_EQ(run.points.size(), 2U);
    EXPECT_EQ(run.times(), "|2026-11-21T15:16:20.000Z 2026-11-21T15:16:21.000Z");
    const TrackPoint& point = run.points[0];
    EXPECT_NEAR(point.latitude, 43.2951915, 1e-7) << "GGA's, not RMC's";
    EXPECT_NEAR(point.longitude, 5.3653655, 1e-7);
    EXPECT_EQ(point.altitude, 12.2);
    EXPECT_EQ(point.geoid, 49.8);
    EXPECT_EQ(point.fix.quality, 1);
    EXPECT_EQ(point.fix.satellites, 20);
    EXPECT_EQ(point.fix.pdop, 1.21);
    EXPECT_NEAR(point.fix.speed.value(), 8.0, 0.001);
    EXPECT_EQ(run.track.sentences, 5U);
}

TEST(Track, ValidRmcAloneIsAPointToo) {
    const Made run({rmc("000000", "010100"), rmc("000001", "010100", "V")});
    ASSERT_EQ(run.points.size(), 1U);
    EXPECT_NEAR(run.points[0].latitude, -43.2951915, 1e-7);
    EXPECT_NEAR(run.points[0].longitude, -5.3653655, 1e-7);
}

TEST(Track, WhatHasNoFixIsNoPoint) {
    const Made run({gga("151620.00", "0"), rmc("151620.00", "211126"), gga("151621.00", ""),
                    whole("GNGGA,151622.00,9900.0,N,00521.9,E,1,1,1,1,M,1,M,,"),
                    whole("GNGGA,151623.00,4360.0,N,00521.9,E,1,1,1,1,M,1,M,,"),
                    whole("GNGGA,151624.00,4317.7,X,00521.9,E,1,1,1,1,M,1,M,,"),
                    whole("GNGGA,,,,,,0,,,,M,,M,,")});
    EXPECT_EQ(run.points.size(), 0U);
}

TEST(Track, DateRollsOverAtMidnight) {
    const Made run({rmc("235959.00", "311226"), gga("235959.00"), gga("000000.00"),
                    rmc("000000.00", "010127"), gga("000001.00")});
    EXPECT_EQ(run.times(), "|2026-12-31T23:59:59.000Z 2027-01-01T00:00:00.000Z 2027-01-01T00:00:01.000Z");
    const Made undated({gga("235959.00"), gga("000000.00")});
    EXPECT_EQ(undated.times(), "|none none") << "one segment: a second lies between them";
}

TEST(Track, PointsBeforeTheDateGetItBackwards) {
    const Made run(
        {gga("235958.00"), gga("235959.00"), gga("000000.00"), rmc("000001.00", "010127"), gga("000001.00")});
    EXPECT_EQ(run.times(), "|2026-12-31T23:59:58.000Z 2026-12-31T23:59:59.000Z 2027-01-01T00:00:00.000Z "
                           "2027-01-01T00:00:01.000Z");
    const Made sparse({gga("060000.00"), gga("140000.00"), rmc("220000.00", "211126")});
    EXPECT_EQ(sparse.times(), "|2026-11-21T06:00:00.000Z |2026-11-21T14:00:00.000Z |2026-11-21T22:00:00.000Z")
        << "each lies near the one behind it";
    const Made void_date({rmc("120000.00", "060180", "V"), gga("120000.00")});
    EXPECT_EQ(void_date.times(), "|none") << "a clock that is not set tells no date";
}

TEST(Track, StampsGiveTheDateThatNoSentenceTells) {
    const Made run({"# 2026-11-21T15:16:21.250Z\r", gga("151620.00"), "# 2026-11-21T25:00:00.000Z\r",
                    "# text", "# +926-11-21T15:16:21.250Z", "# 2026-11--1T15:16:21.250Z", gga("151621.00")});
    EXPECT_EQ(run.times(), "|2026-11-21T15:16:20.000Z 2026-11-21T15:16:21.000Z");
    const Made dated({"# 1970-01-01T00:00:05.000Z", gga("151620.00"), rmc("151620.00", "211126")});
    EXPECT_EQ(dated.times(), "|2026-11-21T15:16:20.000Z") << "the chip knows better";
}

TEST(Track, GapAndStepBackBeginASegment) {
    const Made run({rmc("120000.00", "211126"), rmc("120010.00", "211126"), rmc("120020.01", "211126"),
                    rmc("120019.00", "211126")});
    EXPECT_EQ(run.times(), "|2026-11-21T12:00:00.000Z 2026-11-21T12:00:10.000Z |2026-11-21T12:00:20.010Z "
                           "|2026-11-21T12:00:19.000Z");
    EXPECT_EQ(run.track.segments, 3U);
}

TEST(Track, LeapSecondDoesNotEndASegment) {
    const Made run({rmc("235959.50", "311226"), gga("235959.50"), gga("235960.00"), gga("235960.50"),
                    gga("000000.00"), gga("000000.50")});
    EXPECT_EQ(run.track.segments, 1U) << run.times();
    EXPECT_EQ(run.points.size(), 5U) << run.times();
    EXPECT_EQ(Made({gga("235960.50"), gga("000000.00")}).track.segments, 1U) << "without a date too";
    EXPECT_EQ(Made({rmc("235960.50", "311226"), rmc("230000.00", "311226")}).track.segments, 2U);
}

TEST(Track, ThinnedTrackKeepsPointsFarEnoughFromTheLastOne) {
    const auto at = [](const string& time, const string& minutes) {
        return whole("GNGGA," + time + ",43" + minutes + ",N,00500.0,E,1,20,0.72,12.2,M,49.8,M,,");
    };
    Track seconds;
    seconds.every_s = 2;
    const Made timed({rmc("120000.00", "211126"), rmc("120001.00", "211126"), rmc("120001.90", "211126"),
                      rmc("120002.00", "211126"), rmc("120003.90", "211126"), rmc("120020.00", "211126"),
                      rmc("120021.00", "211126")},
                     seconds);
    EXPECT_EQ(timed.times(), "|2026-11-21T12:00:00.000Z 2026-11-21T12:00:02.000Z |2026-11-21T12:00:20.000Z")
        << "each segment keeps its first";
    EXPECT_EQ(timed.track.points, 3U);
    Track metres; // a minute of latitude is 1852 m
    metres.every_m = 100;
    const Texts path = {at("120000", "17.000"), at("120001", "17.050"), at("120002", "17.055"),
                        at("120003", "17.060"), at("120004", "17.110")};
    EXPECT_EQ(Made(path, metres).points.size(), 3U) << "at 102 m, and 93 m farther none";
    EXPECT_EQ(Made(path, metres).points[1].of_day, std::chrono::hours(12) + std::chrono::seconds(2));
    metres.every_s = 4;
    EXPECT_EQ(Made(path, metres).points.size(), 2U) << "both limits count";
}

TEST(Track, DamagedLinesAreCountedAndLeftOut) {
    string damaged = gga("151620.00");
    damaged[20] = '9';
    const Made run({damaged, "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,",
                    "daemon: text", "", "$", "$*", "position: 1"});
    EXPECT_EQ(run.points.size(), 0U);
    EXPECT_EQ(run.track.refused, 4U);
}

TEST(Track, NoMoreThanSomePointsWaitForADate) {
    Texts lines;
    for (int i = 0; i < 2000; ++i) {
        std::array<char, 16> time = {};
        snprintf(time.data(), time.size(), "12%02d%02d.00", i / 60, i % 60);
        lines.push_back(gga(time.data()));
        lines.push_back(whole("GNZDA"));
    }
    Track track;
    size_t told = 0;
    size_t most = 0;
    for (const string& line : lines) {
        track_line(track, line, [&](const TrackPoint&) { ++told; });
        most = std::max(most, track.waiting.size());
    }
    EXPECT_EQ(most, kTrackWaiting);
    EXPECT_EQ(told + track.waiting.size(), 1999U);
}

TEST(Track, SentencesWithoutATimeDoNotEndAMoment) {
    const Made run(
        {gga("151620.00"), whole("GNGST,,1,2,3,4,5,6,7"), whole("GNZDA,,,,,"), rmc("151620.00", "211126")});
    EXPECT_EQ(run.times(), "|2026-11-21T15:16:20.000Z");
    EXPECT_EQ(run.points[0].fix.speed.value_or(0) > 7.9, true) << "of the RMC behind them";
}

TEST(Track, GnsTellsThePositionWhereNoGgaComes) {
    const string gns = "GNGNS,151620.00,4317.71149,S,00521.92193,W,NDA,21,0.6,13.5,50.1,,,V";
    const Made run({rmc("151620.00", "211126"), whole(gns)});
    ASSERT_EQ(run.points.size(), 1U);
    EXPECT_EQ(run.points[0].altitude, 13.5);
    EXPECT_EQ(run.points[0].geoid, 50.1);
    EXPECT_EQ(run.points[0].fix.quality, 2);
    EXPECT_EQ(run.points[0].fix.satellites, 21);
    const Made both({whole(gns), gga("151620.00"), whole(gns)});
    ASSERT_EQ(both.points.size(), 1U);
    EXPECT_EQ(both.points[0].altitude, 12.2) << "GGA goes before";
    EXPECT_EQ(both.points[0].fix.satellites, 20);
    EXPECT_EQ(Made({whole("GNGNS,151620.00,4317.7,N,00521.9,E,NN,00,9.9,,,,,V")}).points.size(), 0U);
}

TEST(Track, ZdaTellsTheDateOfAPlace) {
    const Made run({whole("GNZDA,151620.00,21,11,2026,00,00"), gga("151620.00"), gga("151621.00")});
    EXPECT_EQ(run.times(), "|2026-11-21T15:16:20.000Z 2026-11-21T15:16:21.000Z");
    const Made early({whole("GNZDA,000004.00,06,01,1980,00,00"), gga("000004.00", "0"), gga("151620.00")});
    EXPECT_EQ(early.times(), "|none") << "a clock that is not set tells no date";
}
