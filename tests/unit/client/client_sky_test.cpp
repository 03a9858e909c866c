// The satellites that the chip sees and uses.
#include "client/sky.h"

#include <gtest/gtest.h>

namespace {

using std::string;
using namespace std::chrono_literals;

const SkyTime kNow = SkyTime(1000s);

Sky sky_of(const std::vector<string>& sentences) {
    Sky sky;
    for (const string& sentence : sentences) {
        sky_take(sky, sentence, kNow);
    }
    return sky;
}

// "G05 used 43" for each satellite, "-" for no signal.
string text_of(const Sky& sky, SkyTime now = kNow) {
    string text;
    for (const Satellite& one : sky_satellites(sky, now)) {
        text += (text.empty() ? "" : ", ") + string(1, sky_letter(one.system)) + std::to_string(one.number) +
                (one.used ? " used " : " ") + (one.signal ? std::to_string(*one.signal) : "-");
    }
    return text;
}

} // namespace

TEST(Sky, GroupCountsWhenItIsWhole) {
    Sky sky = sky_of({"$GPGSV,2,1,05,05,01,047,,10,29,224,30,13,22,062,23,15,40,094,,1*65"});
    EXPECT_EQ(text_of(sky), "");
    sky_take(sky, "$GPGSV,2,2,05,16,25,306,31,1*60", kNow);
    EXPECT_EQ(text_of(sky), "G5 -, G10 30, G13 23, G15 -, G16 31");
    sky_take(sky, "$GPGSV,1,1,01,07,25,306,20,1*60", kNow);
    EXPECT_EQ(text_of(sky), "G7 20") << "a new group takes the place of the old one";
    const Satellite first = sky_satellites(sky, kNow).front();
    EXPECT_EQ(first.elevation, 25);
    EXPECT_EQ(first.azimuth, 306);
}

TEST(Sky, SystemsStandSideBySideAndSignalsTogether) {
    EXPECT_EQ(text_of(sky_of({"$GBGSV,1,1,01,07,25,306,21*6", "$GLGSV,1,1,01,66,09,027,,1*6",
                              "$GPGSV,1,1,02,03,09,027,40,04,10,028,33,1*6", "$GPGSV,1,1,01,03,09,027,45,8*6",
                              "$GAGSV,1,1,01,03,09,027,22,7*6", "$PQGSV,1,1,01,02,09,027,,1*6"})),
              "G3 45, G4 33, R66 -, E3 22, C7 21, J2 -");
}

TEST(Sky, UseIsOfTheSystemThatTheSentenceTells) {
    const std::vector<string> view = {"$GPGSV,1,1,01,03,09,027,40,1*6", "$GAGSV,1,1,01,03,09,027,22,7*6"};
    Sky sky = sky_of(view);
    sky_take(sky, "$GNGSA,A,3,03,05,,,,,,,,,,,0.99,0.54,0.83,3*0D", kNow);
    EXPECT_EQ(text_of(sky), "G3 40, E3 used 22");
    sky = sky_of(view);
    sky_take(sky, "$GPGSA,A,3,03,,,,,,,,,,,,1.21,0.94,0.76*01", kNow);
    EXPECT_EQ(text_of(sky), "G3 used 40, E3 22");
    sky = sky_of({"$GLGSV,1,1,01,66,09,027,30*6"});
    sky_take(sky, "$GNGSA,A,3,66,,,,,,,,,,,,1.21,0.94,0.76*01", kNow);
    EXPECT_EQ(text_of(sky), "R66 used 30") << "no system told: the number does";
}

TEST(Sky, WhatIsOldIsNotShown) {
    Sky sky = sky_of({"$GPGSV,1,1,01,03,09,027,40,1*6", "$GPGSA,A,3,03,,,,,,,,,,,,1,1,1*01"});
    EXPECT_EQ(text_of(sky, kNow + 1500ms), "G3 used 40");
    EXPECT_EQ(text_of(sky, kNow + 1501ms), "G3 40");
    EXPECT_EQ(text_of(sky, kNow + 12s), "G3 40");
    EXPECT_EQ(text_of(sky, kNow + 13s), "");
}

TEST(Sky, HostileSentencesKeepWithinBounds) {
    Sky sky;
    for (int i = 0; i < 3000; ++i) {
        sky_take(sky, "$GPGSV,9,2,99," + std::to_string(i) + ",91,360,100,1,-1,x,1e9,0,1,1,1,999,1,1,1,15*6",
                 kNow);
        sky_take(sky, "$GNGSA,A,3," + std::to_string(i) + ",,,,,,,,,,,,1,1,1," + std::to_string(i) + "*6",
                 kNow);
    }
    sky_take(sky, "$GPGSV,9,9,99,1,1,1,1,15*6", kNow);
    EXPECT_LE(sky.used.size(), 512U);
    const auto satellites = sky_satellites(sky, kNow);
    EXPECT_LE(satellites.size(), 64U);
    ASSERT_FALSE(satellites.empty());
    for (const Satellite& one : satellites) {
        EXPECT_LE(one.elevation.value_or(0), 90);
        EXPECT_LT(one.azimuth.value_or(0), 360);
        EXPECT_LE(one.signal.value_or(0), 99);
    }
    for (const char* broken : {"", "$GPGSV", "$GPGSV,", "$GPGSV,1,1", "$XXGSV,1,1,1,1,1,1,1", "$GPGSA,A,3"}) {
        sky_take(sky, broken, kNow);
    }
}
