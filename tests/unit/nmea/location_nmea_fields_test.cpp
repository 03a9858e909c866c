#include "nmea/location_nmea_fields.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using std::string;
using std::string_literals::operator""s;

// The sentence lies in a block of its exact size, so that a sanitizer sees every read past it.
NmeaFields split(const string& sentence) {
    const auto exact = std::make_unique<char[]>(sentence.size() + 1);
    memcpy(exact.get(), sentence.data(), sentence.size());
    NmeaFields fields;
    memset(&fields, 'x', sizeof fields);
    location_nmea_split_fields(exact.get(), static_cast<int32_t>(sentence.size()), &fields);
    return fields;
}

} // namespace

TEST(LocationNmeaFields, FieldsBeginBehindTheAddress) {
    const NmeaFields fields = split("$GPGGA,123519,,N*4B\r\n");
    EXPECT_EQ(fields.count, 4);
    EXPECT_STREQ(fields.field[0], "A");
    EXPECT_STREQ(fields.field[1], "123519");
    EXPECT_STREQ(fields.field[2], "");
    EXPECT_STREQ(fields.field[3], "N");
    EXPECT_STREQ(fields.field[4], "4B\r\n");
    EXPECT_STREQ(fields.field[5], "");
    EXPECT_EQ(fields.checksum, 0x4B);
    EXPECT_STREQ(split("$PZUL010,1,2*0A\r\n").field[0], "010") << "the number of a response";
}

TEST(LocationNmeaFields, ShortTextsHaveNoFields) {
    for (const string text : {"", "$", "$GP", "$GPGG", "a,b*"}) {
        const NmeaFields fields = split(text);
        EXPECT_EQ(fields.count, 0) << text;
        EXPECT_STREQ(fields.field[0], "") << text;
        EXPECT_EQ(fields.checksum, 0) << text;
    }
}

TEST(LocationNmeaFields, LengthEndsTheSentence) {
    NmeaFields fields;
    location_nmea_split_fields("$GPGGA,123,456", 9, &fields);
    EXPECT_EQ(fields.count, 1);
    EXPECT_STREQ(fields.field[1], "12");
    location_nmea_split_fields("$GPGGA,1", -1, &fields);
    EXPECT_EQ(fields.count, 0);
}

TEST(LocationNmeaFields, FieldOfTwentyCharactersIsCutToNineteen) {
    EXPECT_STREQ(split("$GPGGA," + string(19, '7') + ",1").field[1], string(19, '7').c_str());
    const NmeaFields fields = split("$GPGGA," + string(15000, '7') + ",next");
    EXPECT_STREQ(fields.field[1], string(19, '7').c_str());
    EXPECT_STREQ(fields.field[2], "next");
}

TEST(LocationNmeaFields, FieldsPastTheLastAreDropped) {
    string sentence = "$GPGGA";
    for (int i = 1; i <= 200; ++i) {
        sentence += "," + std::to_string(i);
    }
    const NmeaFields fields = split(sentence + "*00\r\n");
    EXPECT_EQ(fields.count, kNmeaFieldsMax - 1);
    EXPECT_STREQ(fields.field[79], "79");
}

TEST(LocationNmeaFields, SeparatorsAloneStayInside) {
    EXPECT_EQ(split("$GPGG" + string(79, ',')).count, 79);
    EXPECT_EQ(split("$GPGG" + string(80, '*')).count, 79);
    EXPECT_EQ(split("$GPGG" + string(15000, ',')).count, 79);
}

TEST(LocationNmeaFields, NulBytesEndAFieldsTextOnly) {
    const NmeaFields fields = split("$GPGGA,1\0a,2"s);
    EXPECT_STREQ(fields.field[1], "1");
    EXPECT_STREQ(fields.field[2], "2");
}

TEST(LocationNmeaFields, ChecksumReadsTwoHexadecimalDigits) {
    EXPECT_EQ(split("$GPGGA*FF\r\n").checksum, 0xFF);
    EXPECT_EQ(split("$GPGGA*09\r\n").checksum, 0x09);
    EXPECT_EQ(split("$GPGGA*A0\r\n").checksum, 0xA0);
    EXPECT_EQ(split("$GPGGA*").checksum, 0);
    EXPECT_EQ(split("$GPGGA,1*7").checksum, 0x70);
}

TEST(LocationNmeaFields, ContainsLooksAnywhereInsideTheLength) {
    EXPECT_TRUE(location_nmea_contains("$GPGGA,1", 8, "GGA"));
    EXPECT_TRUE(location_nmea_contains("GGA", 3, "GGA"));
    EXPECT_FALSE(location_nmea_contains("GGA", 2, "GGA"));
    EXPECT_FALSE(location_nmea_contains("", 0, "GGA"));
    EXPECT_FALSE(location_nmea_contains("$GPgga,1", 8, "GGA"));
    EXPECT_TRUE(location_nmea_contains("a\0GGA", 5, "GGA"));
}

TEST(LocationNmeaFields, NumbersReadAsTheyBeginAndEndAtTheRange) {
    EXPECT_EQ(location_nmea_number("010"), 10);
    EXPECT_EQ(location_nmea_number(" -7x"), -7);
    EXPECT_EQ(location_nmea_number(""), 0);
    EXPECT_EQ(location_nmea_number("x"), 0);
    EXPECT_EQ(location_nmea_number("9999999999999999999"), INT32_MAX);
    EXPECT_EQ(location_nmea_number("4294967306"), INT32_MAX);
    EXPECT_EQ(location_nmea_number("-999999999999999999"), INT32_MIN);
}
