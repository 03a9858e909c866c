// What the daemon's datagrams mean, hostile ones included.
#include "client/records.h"

#include "support/client_fake_daemon.h"

#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>

namespace {

struct Texts {
    std::string utc, latitude, longitude, height, majorAxis, minorAxis, orientation, verticalUncertainty;
};

// Each text goes to its offset, without a bound of its field but the record's end.
tavor_location_record record_of(const Texts& texts) {
    std::string bytes(sizeof(tavor_location_record), '\0');
    const auto put = [&bytes](size_t offset, const std::string& text) {
        bytes.replace(offset, std::min(text.size(), bytes.size() - offset),
                      text.substr(0, bytes.size() - offset));
    };
    put(0, texts.utc);
    put(12, texts.latitude);
    put(27, texts.longitude);
    put(52, texts.majorAxis);
    put(62, texts.minorAxis);
    put(72, texts.orientation);
    put(82, texts.verticalUncertainty);
    put(42, texts.height);
    tavor_location_record record = {};
    memcpy(&record, bytes.data(), sizeof record);
    return record;
}

Position position_of(const Texts& texts) {
    return record_position(record_of(texts));
}

// A record in which a GST sentence has rewritten the axis after a height that ran on.
Position rewritten(const std::string& height, const std::string& axis) {
    std::string cut = height.substr(0, 10) + axis;
    return position_of({"", "", "", cut + std::string(1, '\0'), "", "", "", ""});
}

} // namespace

TEST(PositionRecord, EveryFieldIsANumberAndTheTimeItsText) {
    const Position p =
        position_of({"123519.000", "48.117300", "-11.516667", "545.40000", "2.5", "1.5", "45.0", "3.25"});
    EXPECT_EQ(p.utc, "123519.000");
    EXPECT_EQ(p.latitude, 48.1173);
    EXPECT_EQ(p.longitude, -11.516667);
    EXPECT_EQ(p.height, 545.4);
    EXPECT_EQ(p.majorAxis, 2.5);
    EXPECT_EQ(p.minorAxis, 1.5);
    EXPECT_EQ(p.orientation, 45.0);
    EXPECT_EQ(p.verticalUncertainty, 3.25);
    const Position none = position_of({});
    EXPECT_FALSE(none.utc || none.latitude || none.longitude || none.height || none.majorAxis ||
                 none.minorAxis || none.orientation || none.verticalUncertainty);
}

TEST(PositionRecord, HeightTakesAsManyAxesAsItReachesWithItsNul) {
    struct Case {
        std::string text, majorAxis, minorAxis;
        double height;
        std::optional<double> major, minor;
    };
    const Case cases[] = {
        {"99.999999", "2.5", "1.5", 99.999999, 2.5, 1.5},
        {"545.400000", "", "1.5", 545.4, {}, 1.5},
        {std::string("1545.412345") + '\0' + "9.9", "", "1.5", 1545.412345, {}, 1.5},
        {"-1545.412345", "", "1.5", -1545.412345, {}, 1.5},
        {"123456789012.123456", "", "1.5", 123456789012.123456, {}, 1.5},
        {"1234567890123.123456", "", "", 1234567890123.123456, {}, {}},
        {"999999999999999.000000", "", "", 999999999999999.0, {}, {}},
    };
    for (const Case& c : cases) {
        const Position p = position_of({"", "", "", c.text, c.majorAxis, c.minorAxis, "45.0", ""});
        EXPECT_EQ(p.height, c.height);
        EXPECT_EQ(p.majorAxis, c.major) << c.text;
        EXPECT_EQ(p.minorAxis, c.minor) << c.text;
        EXPECT_EQ(p.orientation, 45.0) << c.text;
    }
}

TEST(PositionRecord, RewrittenAxisIsReadAndTheHeightIsWhatIsLeftOfIt) {
    const Position p = rewritten("1545.412345", "2.5");
    EXPECT_EQ(p.height, 1545.41234);
    EXPECT_EQ(p.majorAxis, 2.5);
    EXPECT_FALSE(rewritten("1545.412345", "").majorAxis);
    EXPECT_FALSE(rewritten("1234567890.123456", "2.5").height) << "its point is lost";
}

TEST(PositionRecord, UnterminatedFieldsEndAtTheirSize) {
    tavor_location_record record = {};
    memset(&record, '7', sizeof record);
    const Position p = record_position(record);
    EXPECT_EQ(p.utc, std::string(12, '7'));
    EXPECT_EQ(p.latitude, 777777777777777.0);
    EXPECT_FALSE(p.height);
    EXPECT_EQ(p.majorAxis, 7777777777.0);
    EXPECT_EQ(p.verticalUncertainty, 777777777777.0);
}

TEST(PositionRecord, TextsThatAreNoFiniteNumberAreAbsent) {
    for (const char* text : {"nan", "inf", "-inf", "0x10", "1e999", "--48.1", "48.1x", " 48.1", "+48.1", "-",
                             ".", "48,1", "\x1b[31m", "1 2"}) {
        const Position p = position_of({"", text, "", "", text, "", "", text});
        EXPECT_FALSE(p.latitude) << text;
        EXPECT_FALSE(p.majorAxis) << text;
        EXPECT_FALSE(p.verticalUncertainty) << text;
    }
    const Position p = position_of({"1", "", "", "-nan", "2.5", "", "", ""});
    EXPECT_FALSE(p.height);
    EXPECT_EQ(p.majorAxis, 2.5) << "a height harms no other field";
}

TEST(Record, ResultsAreTheirCodeAndValue) {
    for (const uint32_t code : {0U, 1U, 2U, 3U, 4U, 5U, 7U, 8U}) {
        const Record good = record_parse(make_response(code, 0));
        EXPECT_EQ(good.kind, RecordKind::kResult) << code;
        EXPECT_EQ(good.code, code);
        EXPECT_TRUE(record_ok(good));
        const Record bad = record_parse(make_response(code, TAVOR_VALUE_FAILED));
        EXPECT_EQ(bad.kind, RecordKind::kResult) << code;
        EXPECT_FALSE(record_ok(bad));
    }
}

TEST(Record, ChipSentenceIsToldFromTheResultOfACommand) {
    const Record sentence = record_parse(make_response(TAVOR_CODE_CHIP, 0, "$PZUL001,353,3*3A\r\n"));
    EXPECT_EQ(sentence.kind, RecordKind::kChip);
    EXPECT_EQ(sentence.text, "$PZUL001,353,3*3A\r\n");
    EXPECT_EQ(record_parse(make_response(TAVOR_CODE_CHIP, 0)).kind, RecordKind::kResult);
}

TEST(Record, BannerIsNoSentence) {
    const Record banner = record_parse(make_response(TAVOR_CODE_NMEA, 0, "TAVOR Version:V1.3\n"));
    EXPECT_EQ(banner.kind, RecordKind::kBanner);
    EXPECT_EQ(banner.text, "TAVOR Version:V1.3\n");
    EXPECT_EQ(record_parse(make_response(TAVOR_CODE_NMEA, 0, "$GPGGA*00\r\n")).kind, RecordKind::kNmea);
    EXPECT_EQ(record_parse(make_response(TAVOR_CODE_NMEA, 0)).kind, RecordKind::kBanner);
}

TEST(Record, SentenceIsKeptWhole) {
    for (const std::string& text :
         {"$" + std::string(TAVOR_PAYLOAD_SIZE - 1, 'x'), std::string("$GP\0GGA\r\n", 9)}) {
        EXPECT_EQ(record_parse(make_response(TAVOR_CODE_NMEA, 0, text)).text, text);
    }
}

TEST(Record, PositionIsReadFromItsBlock) {
    const tavor_location_record location = record_of({"123519", "48.5", "11.5", "1.0", "", "", "", ""});
    tavor_response response = make_response(TAVOR_CODE_POSITION, 0);
    memcpy(response.payload, &location, sizeof location);
    const Record record = record_parse(response);
    EXPECT_EQ(record.kind, RecordKind::kPosition);
    EXPECT_EQ(record.position.latitude, 48.5);
    EXPECT_TRUE(record.text.empty());
}

TEST(Record, CodesWithoutMeaningAreUnknown) {
    EXPECT_EQ(record_parse(make_response(10, 0, "x")).kind, RecordKind::kUnknown);
    EXPECT_EQ(record_parse(make_response(0xFFFFFFFF, 0, "x")).kind, RecordKind::kUnknown);
}
