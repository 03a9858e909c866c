// Fields of a sentence, its checksum, and the values in it.
#include "sentence/sentence.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using std::string;

string fields_of(const string& text) {
    const Sentence sentence = sentence_split(text);
    string all;
    for (size_t i = 0; i < sentence.count; ++i) {
        all += "[" + string(sentence.fields.at(i)) + "]";
    }
    return all;
}

string place_of(const string& fields) {
    const string text = "$GPGLL," + fields;
    const auto place = sentence_place(sentence_split(text), 1);
    return place ? std::to_string(place->latitude) + " " + std::to_string(place->longitude) : "none";
}

} // namespace

TEST(Sentence, EndsAtItsChecksumOrItsLine) {
    EXPECT_EQ(fields_of("$GPGST,1,,2*33\r\n"), "[$GPGST][1][][2]");
    EXPECT_EQ(fields_of("$GPGST,1,\r\n"), "[$GPGST][1][]");
    EXPECT_EQ(fields_of("$GPGST,1\n,2"), "[$GPGST][1]");
    EXPECT_EQ(fields_of(""), "[]");
    const string text = string("$GPGGA") + string(5000, ',');
    const Sentence full = sentence_split(text);
    EXPECT_EQ(full.count, kSentenceFields);
    EXPECT_EQ(full.type, "GGA");
}

TEST(Sentence, TalkerAndTypeAreThoseOfAWholeNameWithFields) {
    const Sentence sentence = sentence_split("$BDGSA,A");
    EXPECT_EQ(sentence.talker, "BD");
    EXPECT_EQ(sentence.type, "GSA");
    for (const char* other : {"", "$", "GGA", "$GPGGA", "$GPGGA*00", "GPGGA1,2", "$GPGGAX,1", "$GPGG,A,1"}) {
        EXPECT_EQ(sentence_split(other).type, "") << other;
    }
}

TEST(Sentence, IsWholeWithItsOwnChecksumOfTwoDigits) {
    for (const char* good : {"$A*41", "$A*41\r\n", "$PZUL001,353,0*27", "$Z*5a", "$*00"}) {
        EXPECT_TRUE(sentence_is_whole(good)) << good;
    }
    for (const char* bad :
         {"", "$", "$A", "A*41", "$A*42", "$A*", "$A*4", "$A*041", "$A*4g", "$A*+1", "$A*41 "}) {
        EXPECT_FALSE(sentence_is_whole(bad)) << bad;
    }
}

TEST(Sentence, NumberIsADecimalThatFillsTheText) {
    EXPECT_EQ(sentence_number("0.72"), 0.72);
    EXPECT_EQ(sentence_number("08"), 8.0);
    EXPECT_EQ(sentence_number("1000000"), 1e6);
    EXPECT_EQ(sentence_signed("-49.8"), -49.8);
    EXPECT_FALSE(sentence_number("-49.8"));
    EXPECT_FALSE(sentence_number("-0")) << "would be shown with its sign";
    for (const char* bad :
         {"", "x", "1x", " 1", "1.2.3", "+1", "--1", "1000000.1", "1e3", "nan", "inf", "0x10", "."}) {
        EXPECT_FALSE(sentence_signed(bad)) << bad;
    }
}

TEST(Sentence, CountIsOfDigitsOnly) {
    EXPECT_EQ(sentence_count("007"), 7);
    EXPECT_EQ(sentence_count("1000000"), 1000000);
    for (const char* bad : {"", "-1", "1.0", "1000001", "99999999999999999999", "1 "}) {
        EXPECT_FALSE(sentence_count(bad)) << bad;
    }
}

TEST(Sentence, SpeedInKnotsIsToldInMetresASecond) {
    EXPECT_NEAR(sentence_speed("15.551").value(), 8.0, 0.001);
    EXPECT_FALSE(sentence_speed("-1"));
}

TEST(Sentence, QualityIsThatOfTheBestSystem) {
    EXPECT_EQ(sentence_quality("NNAN"), 1);
    EXPECT_EQ(sentence_quality("AD"), 2);
    EXPECT_EQ(sentence_quality("FR"), 4);
    EXPECT_EQ(sentence_quality("NxS"), 8);
    EXPECT_EQ(sentence_quality("NN"), 0);
    EXPECT_EQ(sentence_quality("1x"), std::nullopt);
}

TEST(Sentence, PlaceIsWithinItsHemispheres) {
    EXPECT_EQ(place_of("4330.0,N,00515.0,E"), "43.500000 5.250000");
    EXPECT_EQ(place_of("4330.0,S,00515.0,W"), "-43.500000 -5.250000");
    EXPECT_EQ(place_of("9000,N,18000.00,E"), "90.000000 180.000000");
    for (const char* bad :
         {"9000.1,N,00515,E", "4330,N,18000.1,E", "4360,N,00515,E", "4330,E,00515,N", "-4330,N,00515,E",
          "4330,,00515,E", "4330,NS,00515,E", "4330,N,00515,EW", "4330,N"}) {
        EXPECT_EQ(place_of(bad), "none") << bad;
    }
}
