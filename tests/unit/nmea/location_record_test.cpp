#include "nmea/location_record.h"

#include "support/capture.h"
#include "support/format_fault.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

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
    ~Guarded() {
        EXPECT_EQ(string(before, sizeof before), string(sizeof before, '#'));
        EXPECT_EQ(string(behind, sizeof behind), string(sizeof behind, '#'));
    }
};

struct LocationRecordTest : testing::Test {
    int32_t update(const string& sentence) {
        int32_t result = 99;
        log = capture_stdout([&] {
            result = location_service_get_location_string(&record, sentence.c_str(),
                                                          static_cast<uint32_t>(sentence.size()));
        });
        return result;
    }
    void expect_empty() const {
        const LocationRecord empty = {};
        EXPECT_EQ(memcmp(&record, &empty, sizeof record), 0);
    }
    // The height and what it runs on into.
    string height() const {
        const char* bytes = reinterpret_cast<const char*>(&record);
        const size_t at = offsetof(LocationRecord, height);
        return string(bytes + at, strnlen(bytes + at, sizeof record - at));
    }

    Guarded guarded;
    LocationRecord& record = guarded.record;
    string log;
};

// What is printed of each of these values that can't be read.
string unread(const std::vector<string>& values) {
    string lines;
    for (const string& value : values) {
        lines += "[LOCSERV] ERR: location_service_get_location_string sscanf " + value + " fail\n";
    }
    return lines;
}

string gga(const string& utc, const string& position, const string& altitude, const string& separation) {
    return "$GPGGA," + utc + "," + position + ",1,08,0.9," + altitude + ",M," + separation + ",M,,*47\r\n";
}

const string kMunich = "4807.038,N,01131.000,E";

} // namespace

TEST_F(LocationRecordTest, GgaFillsPositionHeightAndTime) {
    EXPECT_EQ(update(gga("123519", kMunich, "45.4", "46.9")), 0);
    EXPECT_EQ(log, "");
    EXPECT_STREQ(record.utc, "123519");
    EXPECT_STREQ(record.latitude, "48.117300");
    EXPECT_STREQ(record.longitude, "11.516667");
    EXPECT_STREQ(record.height, "92.300000");
    EXPECT_STREQ(record.majorAxis, "");
}

TEST_F(LocationRecordTest, PositionsAsTheyAreReadWithTheirComplaints) {
    const struct {
        const char* what;
        string position;
        string latitude;
        string longitude;
        std::vector<string> unread;
    } rows[] = {
        {"south and west are negative", "4807.038,S,01131.000,W", "-48.117300", "-11.516667", {}},
        {"so is no hemisphere", "4807.038,,01131.000,", "-48.117300", "-11.516667", {}},
        {"or an unknown one", "4807.038,n,01131.000,e", "-48.117300", "-11.516667", {}},
        {"its first letter counts", "4807.038,North,01131.000,East", "48.117300", "11.516667", {}},
        {"what is no number counts as zero",
         "xxyy.1,N,zzzww.1,E",
         "0.000000",
         "0.000000",
         {"latitude min", "latitude deg", "longitude min", "longitude deg"}},
        {"so do missing degrees", "30.0,N,45.0,E", "0.500000", "0.750000", {"latitude deg", "longitude deg"}},
        {"huge ones are cut in their fields",
         "123456789012.5,S,123456789012.5,W",
         "-1234567890.20",
         "-1234567890.20",
         {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(update(gga("1", row.position, "1", "2")), 0);
        EXPECT_EQ(record.latitude, row.latitude);
        EXPECT_EQ(record.longitude, row.longitude);
        EXPECT_STREQ(record.height, "3.000000");
        EXPECT_EQ(log, unread(row.unread));
    }
}

TEST_F(LocationRecordTest, HeightsAsTheyAreReadWithTheirComplaints) {
    const struct {
        const char* what;
        string altitude;
        string separation;
        string height;
        std::vector<string> unread;
    } rows[] = {
        {"what is no number counts as zero", "", "x", "0.000000", {"height min", "height deg"}},
        {"below zero is a height", "-5.5", "1.0", "-4.500000", {}},
        {"fourteen characters are read", "00000000000001234", "0", "1.000000", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(update(gga("1", kMunich, row.altitude, row.separation)), 0);
        EXPECT_EQ(record.height, row.height);
        EXPECT_EQ(log, unread(row.unread));
    }
}

TEST_F(LocationRecordTest, OtherKindsAndFewerThanTwoFieldsAreRefused) {
    for (const char* sentence : {"$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n",
                                 "TAVOR Version:V1.3\n", "", "$GPGGA*56\r\n", "GGA"}) {
        EXPECT_EQ(update(sentence), -1) << sentence;
    }
    expect_empty();
}

TEST_F(LocationRecordTest, GgaOfFewerThanTenFieldsChangesNothingAndIsTaken) {
    EXPECT_EQ(update("$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9*47\r\n"), 0);
    EXPECT_EQ(update("$GPGGA,1*47\r\n"), 0);
    expect_empty();
    EXPECT_EQ(update("$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,45.5*47\r\n"), 0);
    EXPECT_EQ(log, unread({"height min"})) << "ten fields have no separation";
    EXPECT_STREQ(record.height, "45.500000");
}

TEST_F(LocationRecordTest, CoordinateWithoutAPointEndsTheUpdate) {
    for (const string latitude : {"", "4807", ".5", "8.5"}) {
        EXPECT_EQ(update(gga("1", latitude + ",N,01131.000,E", "1", "2")), -1) << latitude;
        expect_empty();
    }
    for (const string longitude : {"", "01131", ".5", "8.5"}) {
        EXPECT_EQ(update(gga("123519", "4807.038,N," + longitude + ",E", "1", "2")), -1) << longitude;
        EXPECT_STREQ(record.latitude, "48.117300");
        EXPECT_STREQ(record.longitude, "");
        EXPECT_STREQ(record.height, "");
        EXPECT_STREQ(record.utc, "");
    }
}

TEST_F(LocationRecordTest, HeightOfAHundredMetresRunsOnIntoTheMajorAxis) {
    EXPECT_EQ(update(gga("1", kMunich, "1234.25", "46.25")), 0);
    EXPECT_EQ(height(), "1280.500000");
    EXPECT_STREQ(record.majorAxis, "0");
    EXPECT_EQ(update("$GPGST,1,2,3.5,4.5,5.5,6,7,8*00\r\n"), 0);
    EXPECT_STREQ(record.majorAxis, "3.5");
    EXPECT_EQ(height(), "1280.500003.5");
}

TEST_F(LocationRecordTest, HugeHeightEndsInsideTheRecord) {
    EXPECT_EQ(update(gga("123519", kMunich, "1e300", "1e300")), 0);
    EXPECT_EQ(height().size(), sizeof(LocationRecord) - offsetof(LocationRecord, height) - 1);
    EXPECT_STREQ(record.longitude, "11.516667");
    EXPECT_STREQ(record.utc, "123519");
}

TEST_F(LocationRecordTest, LongTimeIsCutToElevenCharacters) {
    EXPECT_EQ(update(gga("123456.789012", kMunich, "1", "2")), 0);
    EXPECT_STREQ(record.utc, "123456.7890");
    EXPECT_STREQ(record.latitude, "48.117300");
}

TEST_F(LocationRecordTest, GstFillsTheErrorEllipse) {
    const struct {
        const char* what;
        const char* sentence;
        const char* major;
        const char* minor;
        const char* orientation;
    } rows[] = {
        {"a whole one", "$GPGST,150119.000,004.0,008.7,004.7,132.3,006.8,007.2,00014*71\r\n", "008.7",
         "004.7", "132.3"},
        {"nine characters of each", "$GPGST,1,2,1234567890123,abcdefghijklm,ABCDEFGHIJKLM*71\r\n",
         "123456789", "abcdefghi", "ABCDEFGHI"},
        {"two fields: taken, nothing changed", "$GPGST,1*71\r\n", "123456789", "abcdefghi", "ABCDEFGHI"},
        {"three empty what they lack", "$GPGST,1,2*71\r\n", "71\r\n", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(update(row.sentence), 0);
        EXPECT_STREQ(record.majorAxis, row.major);
        EXPECT_STREQ(record.minorAxis, row.minor);
        EXPECT_STREQ(record.orientation, row.orientation);
        EXPECT_STREQ(record.verticalUncertainty, "");
        EXPECT_STREQ(record.utc, "");
    }
}

TEST_F(LocationRecordTest, EpeFillsTheVerticalUncertainty) {
    EXPECT_EQ(update("$GPEPE,1.5,2.25*00\r\n"), 0);
    EXPECT_STREQ(record.verticalUncertainty, "2.25");
    EXPECT_EQ(update("$GPEPE,1.5,1234567890.12345*00\r\n"), 0);
    EXPECT_STREQ(record.verticalUncertainty, "1234567890.");
    EXPECT_EQ(update("$GPEPE,3*00\r\n"), 0) << "two fields: taken, nothing changed";
    EXPECT_STREQ(record.verticalUncertainty, "1234567890.");
}

TEST_F(LocationRecordTest, NamesCountAnywhereInTheSentence) {
    EXPECT_EQ(update("$GPTXT,GST,EPE,1.5,2.5,3.5*00\r\n"), 0);
    EXPECT_STREQ(record.majorAxis, "1.5");
    EXPECT_STREQ(record.minorAxis, "2.5");
    EXPECT_STREQ(record.orientation, "3.5");
    EXPECT_STREQ(record.verticalUncertainty, "EPE");
    EXPECT_EQ(update("$GPGGA,GST,4807.038,N,01131.000,E,1,8,9,10,M,11,M,,*00\r\n"), 0) << "of two kinds";
    EXPECT_STREQ(record.latitude, "48.117300");
    EXPECT_STREQ(record.majorAxis, "N");
}

TEST_F(LocationRecordTest, NamesBehindTheLengthDoNotCount) {
    EXPECT_EQ(location_service_get_location_string(&record, "$GPTXT,1,2,GST", 13), -1);
    EXPECT_EQ(location_service_get_location_string(&record, "$GPTXT,1,2,GST", 14), 0);
}

TEST_F(LocationRecordTest, SentenceWithNulBytesStaysInside) {
    const string with_nul("$GPGGA,1\0x,4807.038,N,01131.000,E,1,08,0.9,45.4,M,46.9,M,,*47\r\n", 64);
    EXPECT_EQ(update(with_nul), 0);
    EXPECT_STREQ(record.utc, "1");
    EXPECT_STREQ(record.latitude, "48.117300");
}

TEST_F(LocationRecordTest, HeightThatCanNotBeFormattedIsTold) {
    format_fault_arm(0);
    EXPECT_EQ(update(gga("1", kMunich, "1", "2")), 0);
    format_fault_disarm();
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_location_string get height fail\n");
}
