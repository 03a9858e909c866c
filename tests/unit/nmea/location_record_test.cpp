#include "nmea/location_record.h"

#include "support/capture.h"
#include "support/format_fault.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

using std::string;

// The record between two canaries.
struct Guarded {
    char before[16];
    LocationRecord record;
    char behind[64];

    Guarded() : record{} {
        memset(before, '#', sizeof before);
        memset(behind, '#', sizeof behind);
    }
    bool intact() const {
        return string(before, sizeof before) == string(sizeof before, '#') &&
               string(behind, sizeof behind) == string(sizeof behind, '#');
    }
};

int32_t update(LocationRecord* record, const string& sentence) {
    return location_service_get_location_string(record, sentence.c_str(),
                                                static_cast<uint32_t>(sentence.size()));
}

string gga(const string& utc, const string& position, const string& altitude, const string& separation) {
    return "$GPGGA," + utc + "," + position + ",1,08,0.9," + altitude + ",M," + separation + ",M,,*47\r\n";
}

const string kMunich = "4807.038,N,01131.000,E";

string text_at(const LocationRecord& record, size_t offset) {
    const char* bytes = reinterpret_cast<const char*>(&record);
    return string(bytes + offset, strnlen(bytes + offset, sizeof record - offset));
}

string height_of(const LocationRecord& record) {
    return text_at(record, offsetof(LocationRecord, height));
}

string read_position(const string& position) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, gga("1", position, "1", "2")), 0) << position;
    return string(record.latitude) + " " + record.longitude;
}

} // namespace

TEST(LocationRecord, GgaFillsPositionHeightAndTime) {
    LocationRecord record = {};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(update(&record, gga("123519", kMunich, "45.4", "46.9")), 0); }),
              "");
    EXPECT_STREQ(record.utc, "123519");
    EXPECT_STREQ(record.latitude, "48.117300");
    EXPECT_STREQ(record.longitude, "11.516667");
    EXPECT_STREQ(record.height, "92.300000");
    EXPECT_STREQ(record.majorAxis, "");
}

TEST(LocationRecord, SouthAndWestAreNegative) {
    EXPECT_EQ(read_position("4807.038,S,01131.000,W"), "-48.117300 -11.516667");
}

TEST(LocationRecord, EmptyOrUnknownHemisphereIsNegative) {
    EXPECT_EQ(read_position("4807.038,,01131.000,"), "-48.117300 -11.516667");
    EXPECT_EQ(read_position("4807.038,n,01131.000,e"), "-48.117300 -11.516667");
    EXPECT_EQ(read_position("4807.038,North,01131.000,East"), "48.117300 11.516667")
        << "the first letter counts";
}

TEST(LocationRecord, SentencesOfOtherKindsAreRefused) {
    LocationRecord record = {};
    const LocationRecord empty = {};
    EXPECT_EQ(update(&record, "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n"),
              -1);
    EXPECT_EQ(update(&record, "TAVOR Version:V1.3\n"), -1);
    EXPECT_EQ(update(&record, ""), -1);
    EXPECT_EQ(memcmp(&record, &empty, sizeof record), 0);
}

TEST(LocationRecord, FewerThanTwoFieldsAreRefused) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, "$GPGGA*56\r\n"), -1);
    EXPECT_EQ(update(&record, "GGA"), -1);
}

TEST(LocationRecord, GgaOfFewerThanTenFieldsChangesNothingAndIsTaken) {
    LocationRecord record = {};
    const LocationRecord empty = {};
    EXPECT_EQ(update(&record, "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9*47\r\n"), 0);
    EXPECT_EQ(update(&record, "$GPGGA,1*47\r\n"), 0);
    EXPECT_EQ(memcmp(&record, &empty, sizeof record), 0);
}

TEST(LocationRecord, GgaOfTenFieldsHasNoSeparation) {
    LocationRecord record = {};
    const string text = capture_stdout(
        [&] { EXPECT_EQ(update(&record, "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,45.5*47\r\n"), 0); });
    EXPECT_EQ(text, "[LOCSERV] ERR: location_service_get_location_string sscanf height min fail\n");
    EXPECT_STREQ(record.height, "45.500000");
}

TEST(LocationRecord, LatitudeWithoutAPointEndsTheUpdate) {
    for (const string latitude : {"", "4807", ".5", "8.5"}) {
        LocationRecord record = {};
        const LocationRecord empty = {};
        EXPECT_EQ(update(&record, gga("1", latitude + ",N,01131.000,E", "1", "2")), -1) << latitude;
        EXPECT_EQ(memcmp(&record, &empty, sizeof record), 0) << latitude;
    }
}

TEST(LocationRecord, LongitudeWithoutAPointEndsTheUpdateBehindTheLatitude) {
    for (const string longitude : {"", "01131", ".5", "8.5"}) {
        LocationRecord record = {};
        EXPECT_EQ(update(&record, gga("123519", "4807.038,N," + longitude + ",E", "1", "2")), -1)
            << longitude;
        EXPECT_STREQ(record.latitude, "48.117300");
        EXPECT_STREQ(record.longitude, "");
        EXPECT_STREQ(record.height, "");
        EXPECT_STREQ(record.utc, "");
    }
}

TEST(LocationRecord, UnreadableCoordinatesArePrintedAndCountAsZero) {
    LocationRecord record = {};
    const string text =
        capture_stdout([&] { EXPECT_EQ(update(&record, gga("1", "xxyy.1,N,zzzww.1,E", "1", "2")), 0); });
    EXPECT_EQ(text, "[LOCSERV] ERR: location_service_get_location_string sscanf latitude min fail\n"
                    "[LOCSERV] ERR: location_service_get_location_string sscanf latitude deg fail\n"
                    "[LOCSERV] ERR: location_service_get_location_string sscanf longitude min fail\n"
                    "[LOCSERV] ERR: location_service_get_location_string sscanf longitude deg fail\n");
    EXPECT_STREQ(record.latitude, "0.000000");
    EXPECT_STREQ(record.longitude, "0.000000");
}

TEST(LocationRecord, MissingDegreesCountAsZero) {
    LocationRecord record = {};
    const string text =
        capture_stdout([&] { EXPECT_EQ(update(&record, gga("1", "30.0,N,45.0,E", "1", "2")), 0); });
    EXPECT_EQ(text, "[LOCSERV] ERR: location_service_get_location_string sscanf latitude deg fail\n"
                    "[LOCSERV] ERR: location_service_get_location_string sscanf longitude deg fail\n");
    EXPECT_STREQ(record.latitude, "0.500000");
    EXPECT_STREQ(record.longitude, "0.750000");
}

TEST(LocationRecord, UnreadableHeightsArePrintedAndCountAsZero) {
    LocationRecord record = {};
    const string text = capture_stdout([&] { EXPECT_EQ(update(&record, gga("1", kMunich, "", "x")), 0); });
    EXPECT_EQ(text, "[LOCSERV] ERR: location_service_get_location_string sscanf height min fail\n"
                    "[LOCSERV] ERR: location_service_get_location_string sscanf height deg fail\n");
    EXPECT_STREQ(record.height, "0.000000");
}

TEST(LocationRecord, HeightBelowZeroIsAHeight) {
    LocationRecord record = {};
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(update(&record, gga("1", kMunich, "-5.5", "1.0")), 0); }), "");
    EXPECT_STREQ(record.height, "-4.500000");
}

TEST(LocationRecord, HeightOfAHundredMetresRunsOnIntoTheMajorAxis) {
    Guarded guarded;
    EXPECT_EQ(update(&guarded.record, gga("1", kMunich, "1234.25", "46.25")), 0);
    EXPECT_EQ(height_of(guarded.record), "1280.500000");
    EXPECT_STREQ(guarded.record.majorAxis, "0");
    EXPECT_EQ(update(&guarded.record, "$GPGST,1,2,3.5,4.5,5.5,6,7,8*00\r\n"), 0);
    EXPECT_STREQ(guarded.record.majorAxis, "3.5");
    EXPECT_EQ(height_of(guarded.record), "1280.500003.5");
}

TEST(LocationRecord, HugeHeightEndsInsideTheRecord) {
    Guarded guarded;
    EXPECT_EQ(update(&guarded.record, gga("123519", kMunich, "1e300", "1e300")), 0);
    EXPECT_EQ(height_of(guarded.record).size(),
              sizeof(LocationRecord) - offsetof(LocationRecord, height) - 1);
    EXPECT_STREQ(guarded.record.longitude, "11.516667");
    EXPECT_STREQ(guarded.record.utc, "123519");
    EXPECT_TRUE(guarded.intact());
}

TEST(LocationRecord, HugeCoordinatesAreCutInTheirFields) {
    Guarded guarded;
    EXPECT_EQ(update(&guarded.record, gga("1", "123456789012.5,S,123456789012.5,W", "1", "2")), 0);
    EXPECT_STREQ(guarded.record.latitude, "-1234567890.20");
    EXPECT_STREQ(guarded.record.longitude, "-1234567890.20");
    EXPECT_STREQ(guarded.record.height, "3.000000");
    EXPECT_TRUE(guarded.intact());
}

TEST(LocationRecord, NumbersAreReadFromFourteenCharacters) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, gga("1", kMunich, "00000000000001234", "0")), 0);
    EXPECT_STREQ(record.height, "1.000000");
}

TEST(LocationRecord, LongTimeIsCutToElevenCharacters) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, gga("123456.789012", kMunich, "1", "2")), 0);
    EXPECT_STREQ(record.utc, "123456.7890");
    EXPECT_STREQ(record.latitude, "48.117300");
}

TEST(LocationRecord, GstFillsTheErrorEllipse) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, "$GPGST,150119.000,004.0,008.7,004.7,132.3,006.8,007.2,00014*71\r\n"), 0);
    EXPECT_STREQ(record.majorAxis, "008.7");
    EXPECT_STREQ(record.minorAxis, "004.7");
    EXPECT_STREQ(record.orientation, "132.3");
    EXPECT_STREQ(record.utc, "");
}

TEST(LocationRecord, LongGstFieldsAreCutToNineCharacters) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, "$GPGST,1,2,1234567890123,abcdefghijklm,ABCDEFGHIJKLM*71\r\n"), 0);
    EXPECT_STREQ(record.majorAxis, "123456789");
    EXPECT_STREQ(record.minorAxis, "abcdefghi");
    EXPECT_STREQ(record.orientation, "ABCDEFGHI");
    EXPECT_STREQ(record.verticalUncertainty, "");
}

TEST(LocationRecord, GstOfThreeFieldsEmptiesWhatItLacks) {
    LocationRecord record = {};
    ASSERT_EQ(update(&record, "$GPGST,1,2,3,4,5*71\r\n"), 0);
    EXPECT_EQ(update(&record, "$GPGST,1*71\r\n"), 0) << "two fields: taken, nothing changed";
    EXPECT_STREQ(record.minorAxis, "4");
    EXPECT_EQ(update(&record, "$GPGST,1,2*71\r\n"), 0);
    EXPECT_STREQ(record.majorAxis, "71\r\n");
    EXPECT_STREQ(record.minorAxis, "");
    EXPECT_STREQ(record.orientation, "");
}

TEST(LocationRecord, EpeFillsTheVerticalUncertainty) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, "$GPEPE,1.5,2.25*00\r\n"), 0);
    EXPECT_STREQ(record.verticalUncertainty, "2.25");
    EXPECT_EQ(update(&record, "$GPEPE,1.5,1234567890.12345*00\r\n"), 0);
    EXPECT_STREQ(record.verticalUncertainty, "1234567890.");
    EXPECT_EQ(update(&record, "$GPEPE,3*00\r\n"), 0) << "two fields: taken, nothing changed";
    EXPECT_STREQ(record.verticalUncertainty, "1234567890.");
}

TEST(LocationRecord, NamesCountAnywhereInTheSentence) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, "$GPTXT,GST,EPE,1.5,2.5,3.5*00\r\n"), 0);
    EXPECT_STREQ(record.majorAxis, "1.5");
    EXPECT_STREQ(record.minorAxis, "2.5");
    EXPECT_STREQ(record.orientation, "3.5");
    EXPECT_STREQ(record.verticalUncertainty, "EPE");
}

TEST(LocationRecord, NamesBehindTheLengthDoNotCount) {
    LocationRecord record = {};
    EXPECT_EQ(location_service_get_location_string(&record, "$GPTXT,1,2,GST", 13), -1);
    EXPECT_EQ(location_service_get_location_string(&record, "$GPTXT,1,2,GST", 14), 0);
}

TEST(LocationRecord, SentenceWithNulBytesStaysInside) {
    Guarded guarded;
    const string with_nul("$GPGGA,1\0x,4807.038,N,01131.000,E,1,08,0.9,45.4,M,46.9,M,,*47\r\n", 64);
    EXPECT_EQ(update(&guarded.record, with_nul), 0);
    EXPECT_STREQ(guarded.record.utc, "1");
    EXPECT_STREQ(guarded.record.latitude, "48.117300");
    EXPECT_TRUE(guarded.intact());
}

TEST(LocationRecord, HeightThatCanNotBeFormattedIsTold) {
    LocationRecord record = {};
    const string text = capture_stdout([&] {
        format_fault_arm(0);
        EXPECT_EQ(update(&record, gga("1", kMunich, "1", "2")), 0);
        format_fault_disarm();
    });
    EXPECT_EQ(text, "[LOCSERV] ERR: location_service_get_location_string get height fail\n");
}

TEST(LocationRecord, SentenceOfTwoKindsUpdatesBoth) {
    LocationRecord record = {};
    EXPECT_EQ(update(&record, "$GPGGA,GST,4807.038,N,01131.000,E,1,8,9,10,M,11,M,,*00\r\n"), 0);
    EXPECT_STREQ(record.latitude, "48.117300");
    EXPECT_STRNE(record.majorAxis, "");
}
