#include "gnss/gnss_epoch.h"
#include "gnss/gnss_sky.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

struct RelayGnss : testing::Test {
    static void keep(void* to, const GnssEpoch& epoch) {
        static_cast<std::vector<GnssEpoch>*>(to)->push_back(epoch);
    }
    void take(const std::string& sentence) {
        gnss_reader_take(reader, sentence + "*00\r\n", keep, &told);
    }
    void take_epoch(const std::string& time, const std::string& altitude = "61.7") {
        take("$GNRMC," + time + ",A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
        take("$GNGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9," + altitude + ",M,46.9,M,,");
        take("$GNGSA,A,3,04,05,,,,,,,,,,,2.5,1.3,2.1,1");
        take("$GNGSA,A,3,66,,,,,,,,,,,,2.5,1.3,2.1,2");
        take("$GPGSV,2,1,05,04,40,083,46,05,17,308,41,12,07,344,39,33,14,228,45,1");
        take("$GPGSV,2,2,05,19,01,002,,1");
        take("$GLGSV,1,1,01,66,30,100,30,1");
        take("$GNGST," + time + ",1.0,2.0,3.0,45.0,4.0,5.0,6.0");
    }

    GnssReader reader;
    std::vector<GnssEpoch> told;
};

// Each with its number among all, its system, its number there, and whether it is used.
std::string satellites_of(const GnssEpoch& epoch) {
    std::string text;
    for (const GnssSatellite& one : epoch.satellites) {
        text += std::to_string(gnss_sky_prn(one)) + "/" + std::to_string(static_cast<int>(one.system)) + "/" +
                std::to_string(one.number) + (one.used ? "+" : "-") + " ";
    }
    return text;
}

TEST_F(RelayGnss, TheFirstEpochIsToldWithTheNextAndLaterOnesWithTheirLastSentence) {
    take_epoch("120000.00");
    EXPECT_EQ(told.size(), 0U);
    take("$GNRMC,120001.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    ASSERT_EQ(told.size(), 1U);
    take_epoch("120002.00");
    EXPECT_EQ(told.size(), 2U + 1U); // the short one, and this one with its GST
    EXPECT_EQ(utc_iso(*told.back().time), "2094-03-23T12:00:02.000Z");
}

TEST_F(RelayGnss, AnEpochTellsWhatItsSentencesSay) {
    take_epoch("120000.50");
    take_epoch("120001.50");
    ASSERT_EQ(told.size(), 2U);
    const GnssEpoch& epoch = told.back();
    EXPECT_EQ(epoch.mode, GnssMode::k3d);
    EXPECT_EQ(epoch.quality, 1);
    EXPECT_NEAR(*epoch.latitude, 48.1173, 1e-9);
    EXPECT_NEAR(*epoch.longitude, 11.0 + 31.0 / 60, 1e-9);
    EXPECT_EQ(epoch.altitude, 61.7);
    EXPECT_EQ(epoch.separation, 46.9);
    EXPECT_NEAR(*epoch.speed, 5.14444, 1e-4);
    EXPECT_EQ(epoch.course, 84.4);
    EXPECT_EQ(epoch.hdop, 1.3);
    ASSERT_TRUE(epoch.errors);
    EXPECT_EQ(epoch.errors->altitude, 6.0);
    EXPECT_EQ(utc_iso(*epoch.time), "2094-03-23T12:00:01.500Z");
}

TEST_F(RelayGnss, AnotherTimeBeginsAnEpoch) {
    take("$GNRMC,120000.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    take("$GNGGA,120001.00,4807.038,N,01131.000,E,1,08,0.9,61.7,M,46.9,M,,");
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(utc_iso(*told[0].time), "2094-03-23T12:00:00.000Z");
}

TEST_F(RelayGnss, AViewBehindTheLastSentenceOfItsEpochIsToldWithTheNextOne) {
    const auto take_short = [this](const std::string& time) {
        take("$GNRMC," + time + ",A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
        take("$GNGSA,A,3,04,05,,,,,,,,,,,2.5,1.3,2.1,1");
    };
    take_short("120000.00");
    take_short("120001.00");
    take_short("120002.00");
    take("$GPGSV,1,1,01,04,40,083,46,1");
    take_short("120003.00");
    take_short("120004.00");
    ASSERT_EQ(told.size(), 5U);
    EXPECT_FALSE(told[2].has_view);
    EXPECT_TRUE(told[3].has_view);
    EXPECT_EQ(told[3].satellites.size(), 1U);
    EXPECT_FALSE(told[4].has_view);
}

TEST_F(RelayGnss, WhatComesMoreSeldomThanTheEpochsCountsUntilItComesAgain) {
    const auto take_short = [this](const std::string& time) {
        take("$GNRMC," + time + ",A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
        take("$GNGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9,61.7,M,46.9,M,,");
    };
    take_short("120000.00");
    take_short("120000.10");
    take_short("120000.20");
    take("$GNGSA,A,3,04,05,,,,,,,,,,,2.5,1.3,2.1,1");
    take("$GNGSA,A,3,66,,,,,,,,,,,,2.5,1.3,2.1,2");
    take("$GPGSV,1,1,02,04,40,083,46,12,07,344,39,1");
    take("$GNGST,120000.20,1.0,2.0,3.0,45.0,4.0,5.0,6.0");
    take_short("120000.30");
    take_short("120000.40");
    ASSERT_EQ(told.size(), 5U);
    EXPECT_FALSE(told[2].has_sky || told[2].errors);
    EXPECT_TRUE(told[3].has_sky && told[3].has_view && told[3].errors);
    EXPECT_FALSE(told[4].has_sky || told[4].has_view || told[4].errors);
    for (const size_t i : {3U, 4U}) {
        EXPECT_EQ(satellites_of(told[i]), "4/0/4+ 12/0/12- ");
        EXPECT_EQ(told[i].hdop, 1.3);
    }
    take("$GNGSA,A,3,12,,,,,,,,,,,,2.5,1.4,2.1,1");
    take_short("120000.50");
    take_short("120000.60");
    EXPECT_EQ(satellites_of(told.back()), "4/0/4- 12/0/12+ ");
    EXPECT_EQ(told.back().hdop, 1.4);
}

TEST_F(RelayGnss, WhatIsForgottenIsNotToldAndTheNextEpochEndsWhereTheLastOneDid) {
    take_epoch("120000.00");
    gnss_reader_forget(reader);
    take_epoch("120100.00");
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(utc_iso(*told[0].time), "2094-03-23T12:01:00.000Z");
    gnss_reader_forget(reader);
    take("$GNRMC,120200.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    take("$GNGST,120200.00,1.0,2.0,3.0,45.0,4.0,5.0,6.0");
    ASSERT_EQ(told.size(), 2U);
    EXPECT_TRUE(told[1].satellites.empty());
    EXPECT_FALSE(told[1].hdop);
}

TEST_F(RelayGnss, AnEpochThatWasCutAndForgottenTellsNoEnd) {
    take_epoch("120000.00");
    take_epoch("120001.00");
    ASSERT_EQ(told.size(), 2U);
    take("$GNRMC,120002.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    gnss_reader_forget(reader);
    take_epoch("120100.00");
    ASSERT_EQ(told.size(), 3U);
    EXPECT_TRUE(told[2].altitude && told[2].hdop && told[2].errors);
}

TEST_F(RelayGnss, AGsaOfASystemWithoutAFixTellsNoDops) {
    take("$GNRMC,120000.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    take("$GPGSA,A,3,04,05,,,,,,,,,,,2.5,1.3,2.1");
    take("$GLGSA,A,3,66,,,,,,,,,,,,2.6,1.4,2.2");
    take("$GBGSA,A,1,,,,,,,,,,,,,99.99,99.99,99.99");
    take("$GNRMC,120001.00,V,,,,,,,230394,,,N,V");
    take("$GPGSA,A,1,,,,,,,,,,,,,99.98,99.98,99.98");
    take("$GNRMC,120002.00,V,,,,,,,230394,,,N,V");
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].hdop, 1.4);
    EXPECT_EQ(told[1].hdop, 99.98);
}

TEST_F(RelayGnss, ATimeIsTheSameWithMoreOrFewerDigits) {
    for (const std::string time : {"120000", "120001"}) {
        take("$GNRMC," + time + ".00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
        take("$GNGGA," + time + ".000,4807.038,N,01131.000,E,1,08,0.9,61.7,M,46.9,M,,");
        take("$GNZDA," + time + ",23,03,2094,00,00");
    }
    ASSERT_EQ(told.size(), 2U);
    EXPECT_TRUE(told[1].speed && told[1].altitude);
}

TEST_F(RelayGnss, ACourseIsLessThan360Degrees) {
    take("$GNRMC,120000.00,A,4807.038,N,01131.000,E,10.0,360.0,230394,,,A,V");
    take("$GNRMC,120001.00,A,4807.038,N,01131.000,E,10.0,359.9,230394,,,A,V");
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].course, 0);
    EXPECT_EQ(told[1].course, 359.9);
}

TEST_F(RelayGnss, SatellitesAreNumberedAsGpsdNumbersThem) {
    take_epoch("120000.00");
    take("$GAGSV,1,1,01,07,30,100,30,7");
    take("$GBGSV,1,1,01,09,30,100,,1");
    take_epoch("120001.00");
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(satellites_of(told[0]), "4/0/4+ 5/0/5+ 12/0/12- 33/1/120- 19/0/19- 66/6/2+ 307/2/7- 409/3/9- ");
}

TEST_F(RelayGnss, ANumberThatIsOfOneSystemTellsItWhoeverSaysIt) {
    take("$GPGSV,1,1,04,120,30,100,30,193,30,100,30,201,30,100,30,301,30,100,30");
    take("$GBGSV,1,1,03,63,30,100,30,202,30,100,30,403,30,100,30");
    take("$GAGSV,1,1,02,36,30,100,30,302,30,100,30");
    take("$GLGSV,1,1,03,03,30,100,30,68,30,100,30,40,30,100,30");
    take("$GPGSV,1,1,04,99,30,100,30,159,30,100,30,264,30,100,30,900,30,100,30"); // of none
    take("$GNGSA,A,3,193,04,,,,,,,,,,,2.5,1.3,2.1,1");
    take("$GNGSA,A,3,03,,,,,,,,,,,,2.5,1.3,2.1,2"); // in its system
    take("$GNRMC,120000.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    take("$GNRMC,120001.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(satellites_of(told[0]),
              "33/1/120- 193/5/1+ 401/3/1- 301/2/1- 463/3/63- 402/3/2- 403/3/3- 336/2/36- 302/2/2- 67/6/3+ "
              "68/6/4- 40/1/127- ");
}

TEST_F(RelayGnss, TheNumberOfTheSignalIsNoSatellite) {
    take("$GPGSV,1,1,01,04,40,083,46,1");
    take("$GPGSV,1,1,01,04,40,083,48,6"); // again, stronger on another signal
    take_epoch("120000.00");
    take_epoch("120001.00");
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told[0].satellites[0].number, 4);
    EXPECT_EQ(told[0].satellites[0].strength, 48);
    EXPECT_EQ(told[0].satellites.size(), 6U);
}

TEST_F(RelayGnss, AnEpochEndsWithTheLastSignalOfItsView) {
    for (const std::string time : {"120000.00", "120001.00"}) {
        take("$GNRMC," + time + ",A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
        take("$GPGSV,2,1,05,04,40,083,46,05,17,308,41,12,07,344,39,33,14,228,45,1");
        take("$GPGSV,2,2,05,19,01,002,,1");
        take("$GPGSV,1,1,02,04,40,083,48,25,17,308,41,8");
    }
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[1].satellites.size(), 6U);
    EXPECT_EQ(told[1].satellites[0].strength, 48);
}

TEST_F(RelayGnss, SatellitesOfATalkerThatIsNotKnownAreNotTakenForOthers) {
    take("$PQGSA,A,3,04,,,,,,,,,,,,2.5,1.3,2.1");
    take("$GPGSV,1,1,01,04,40,083,46");
    take("$PQGSV,1,1,01,07,40,083,46");
    take("$GNRMC,120000.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    take("$GNRMC,120001.00,A,4807.038,N,01131.000,E,10.0,84.4,230394,,,A,V");
    ASSERT_FALSE(told.empty());
    ASSERT_EQ(told[0].satellites.size(), 1U);
    EXPECT_EQ(told[0].satellites[0].number, 4);
    EXPECT_FALSE(told[0].satellites[0].used);
    EXPECT_FALSE(told[0].hdop);
}

TEST_F(RelayGnss, APositionAloneIsAFixWhereItSaysThatItIsValid) {
    take("$GPGLL,4807.038,N,01131.000,E,120000.00,A,A");
    take("$GPGLL,4807.038,N,01131.000,E,120001.00,V,N");
    take("$GPGLL,4807.038,N,01131.000,E,120002.00,V,N");
    ASSERT_GE(told.size(), 2U);
    EXPECT_EQ(told[0].mode, GnssMode::k2d);
    EXPECT_EQ(told[1].mode, GnssMode::kNoFix);
}

TEST_F(RelayGnss, WithoutAFixThereIsNoPosition) {
    for (const std::string time : {"120000.00", "120001.00"}) {
        take("$GNRMC," + time + ",V,4807.038,N,01131.000,E,1.0,2.0,230394,,,N,V");
        take("$GNGGA," + time + ",4807.038,N,01131.000,E,0,00,99.9,5.0,M,46.9,M,,");
    }
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[1].mode, GnssMode::kNoFix);
    EXPECT_FALSE(told[1].latitude);
    EXPECT_FALSE(told[1].speed);
}

TEST_F(RelayGnss, AChipWithoutATimeHasEpochsToo) {
    for (int i = 0; i < 3; ++i) {
        take("$GPGGA,,,,,,0,,,,M,,M,,");
        take("$GPGSA,A,1,,,,,,,,,,,,,,,");
        take("$GPRMC,,V,,,,,,,,,,N");
    }
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(told[2].mode, GnssMode::kNoFix);
    EXPECT_FALSE(told[2].time);
}

TEST_F(RelayGnss, TheDayChangesAtMidnightAlsoWhereTheDateComesLast) {
    for (const std::string time : {"235958.00", "235959.00"}) {
        take("$GPGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9,1.0,M,46.9,M,,");
        take("$GPRMC," + time + ",A,4807.038,N,01131.000,E,0.1,84.4,310326,,,A");
    }
    take("$GPGGA,000000.00,4807.038,N,01131.000,E,1,08,0.9,1.0,M,46.9,M,,");
    take("$GPGGA,000001.00,4807.038,N,01131.000,E,1,08,0.9,1.0,M,46.9,M,,");
    ASSERT_EQ(told.size(), 4U);
    EXPECT_EQ(utc_iso(*told[1].time), "2026-03-31T23:59:59.000Z");
    EXPECT_EQ(utc_iso(*told[2].time), "2026-04-01T00:00:00.000Z");
}

TEST_F(RelayGnss, WhatIsNoGoodValueIsAbsent) {
    for (const std::string time : {"120000.00", "120001.00"}) {
        take("$GNRMC," + time + ",A,9907.038,N,01131.000,E,nan,1e300,310226,,,A,V");
        take("$GNGGA," + time + ",4867.038,N,01131.000,X,1,08,0.9,+inf,M,0x10,M,,");
        take("$GNGLL,-4807.038,N,01131.000,E," + time + ",A");
    }
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[1].mode, GnssMode::kNoFix);
    EXPECT_FALSE(told[1].time);
    EXPECT_FALSE(told[1].altitude);
}

TEST_F(RelayGnss, AnEpochThatNeverEndsIsCut) {
    for (int i = 0; i < 200; ++i) {
        take("$GPGSV,9,1,01,04,40,083,46");
    }
    EXPECT_GE(told.size(), 3U);
}

TEST_F(RelayGnss, GnsTellsThePositionWhereNoGgaComes) {
    for (const std::string time : {"120000.00", "120001.00"}) {
        take("$GNRMC," + time + ",A,4807.00,N,01131.00,E,10.0,84.4,230326,,,A,V");
        take("$GNGNS," + time + ",4807.038,S,01131.000,E,DANN,17,0.8,61.7,46.9,,,V");
    }
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[1].mode, GnssMode::k3d);
    EXPECT_EQ(told[1].quality, 2);
    EXPECT_NEAR(*told[1].latitude, -48.1173, 1e-9);
    EXPECT_EQ(told[1].altitude, 61.7);
    EXPECT_EQ(told[1].separation, 46.9);
    for (const std::string time : {"120002.00", "120003.00"}) {
        take("$GNGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9,1.0,M,46.9,M,,");
        take("$GNGNS," + time + ",4807.038,S,01131.000,E,NNNN,17,0.8,61.7,46.9,,,V");
    }
    EXPECT_EQ(told.back().quality, 1) << "GGA goes before";
    EXPECT_EQ(told.back().altitude, 1.0);
}

TEST_F(RelayGnss, ZdaTellsTheDate) {
    for (const std::string time : {"235958.00", "235959.00"}) {
        take("$GPGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9,1.0,M,46.9,M,,");
        take("$GPZDA," + time + ",31,12,2026,00,00");
    }
    take("$GPGGA,000000.00,4807.038,N,01131.000,E,1,08,0.9,1.0,M,46.9,M,,");
    take("$GPZDA,,,,,,");
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(utc_iso(*told[1].time), "2026-12-31T23:59:59.000Z");
    EXPECT_EQ(utc_iso(*told[2].time), "2027-01-01T00:00:00.000Z");
}

} // namespace
