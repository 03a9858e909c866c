// Output for people and for programs.
#include "client/print.h"

#include <gtest/gtest.h>

namespace {

Record sentence(RecordKind kind, const std::string& text) {
    Record record;
    record.kind = kind;
    record.code = kind == RecordKind::kChip ? TAVOR_CODE_CHIP : TAVOR_CODE_NMEA;
    record.text = text;
    return record;
}

Record result(uint32_t code, uint32_t value) {
    Record record;
    record.kind = RecordKind::kResult;
    record.code = code;
    record.value = value;
    return record;
}

Record position(const Position& p) {
    Record record;
    record.kind = RecordKind::kPosition;
    record.code = TAVOR_CODE_POSITION;
    record.position = p;
    return record;
}

const Position kFull = {"123519.000", 48.1173, -11.516667, 545.4, 2.5, 1.5, 45.0, 3.25};

const PositionDetails kDetails = {{2, 8, 1.5, 0.9, 1.2, 8.0, 45.5, {}},
                                  Utc(std::chrono::sys_days(std::chrono::year(2026) / 11 / 21)) +
                                      std::chrono::hours(12) + std::chrono::minutes(35) +
                                      std::chrono::seconds(19),
                                  0.5};

bool is_terminal_safe(const std::string& text) {
    for (const char c : text) {
        if ((c < ' ' || c > '~') && c != '\n') {
            return false;
        }
    }
    return true;
}

std::string every_byte() {
    std::string bytes = "$";
    for (int c = 0; c < 256; ++c) {
        bytes += static_cast<char>(c);
    }
    return bytes;
}

} // namespace

TEST(PrintLine, SentenceLosesItsLineEndOnly) {
    EXPECT_EQ(print_line(sentence(RecordKind::kNmea, "$GPGGA,1*00\r\n")), "$GPGGA,1*00\n");
    EXPECT_EQ(print_line(sentence(RecordKind::kChip, "$PZUL001,353,3*00\r\n")), "chip: $PZUL001,353,3*00\n");
    EXPECT_EQ(print_line(sentence(RecordKind::kBanner, "TAVOR Version:V1.3\n")),
              "daemon: TAVOR Version:V1.3\n");
}

TEST(PrintLine, PositionHasTimeUnitsAndHemispheresAndLeavesOutWhatIsNotKnown) {
    const std::pair<Position, std::string> rows[] = {
        {kFull, "12:35:19.000 UTC, 48.117300 N, 11.516667 W, height 545.4 m, "
                "ellipse 2.5 m x 1.5 m at 45.0 deg, vertical 3.2 m"},
        {{"123519", -0.5, 1.0, {}, {}, {}, {}, {}}, "12:35:19 UTC, 0.500000 S, 1.000000 E, height unknown"},
        {{"123519", 1.0, 1.0, 1545.4, {}, 1.5, 45.0, {}},
         "12:35:19 UTC, 1.000000 N, 1.000000 E, height 1545.4 m, ellipse unknown x 1.5 m at 45.0 deg"},
        {{}, "unknown, unknown, unknown, height unknown"}};
    for (const auto& [known, shown] : rows) {
        EXPECT_EQ(print_line(position(known)), "position: " + shown + "\n");
    }
}

TEST(PrintLine, ResultsAndUnknownCodesSaySo) {
    EXPECT_EQ(print_line(result(TAVOR_CODE_START, 0)), "daemon: positioning started\n");
    EXPECT_EQ(print_line(result(TAVOR_CODE_ASSIST_RESULT, TAVOR_VALUE_FAILED)),
              "daemon: assistance data could not be downloaded\n");
    Record unknown;
    unknown.code = 4711;
    EXPECT_EQ(print_line(unknown), "daemon: response of unknown code 4711\n");
}

TEST(PrintLine, NoByteOfTheChipReachesTheTerminalAsAControl) {
    for (const RecordKind kind : {RecordKind::kNmea, RecordKind::kBanner, RecordKind::kChip}) {
        EXPECT_TRUE(is_terminal_safe(print_line(sentence(kind, every_byte()))));
        EXPECT_TRUE(is_terminal_safe(print_json(sentence(kind, every_byte()))));
        EXPECT_TRUE(is_terminal_safe(print_sentence(sentence(kind, every_byte()))));
    }
    Position hostile;
    hostile.utc = "123519\x1b[2J\x9b";
    EXPECT_EQ(print_line(position(hostile)),
              "position: 12:35:19\\x1b[2J\\x9b UTC, unknown, unknown, height unknown\n");
    EXPECT_TRUE(is_terminal_safe(print_position(hostile, {})));
    EXPECT_TRUE(is_terminal_safe(print_position_json(hostile, {})));
}

TEST(PrintLine, LineBreakInsideASentenceMakesNoSecondLine) {
    EXPECT_EQ(print_line(sentence(RecordKind::kNmea, "$GP\n$GN\r\n")), "$GP\\x0a$GN\n");
    EXPECT_EQ(print_json(sentence(RecordKind::kNmea, "$GP\n$GN\r\n")),
              "{\"type\":\"nmea\",\"sentence\":\"$GP\\n$GN\"}\n");
}

TEST(PrintLine, LargestNumbersFit) {
    Position p;
    p.height = -1.7976931348623157e308;
    const std::string line = print_line(position(p));
    EXPECT_NE(line.find("height -17976931348623157"), std::string::npos);
    EXPECT_EQ(line.substr(line.size() - 3), " m\n");
}

TEST(PrintJson, PositionHasNumbersAndNulls) {
    EXPECT_EQ(print_position_json(kFull, kDetails),
              "{\"utc\":\"123519.000\",\"latitude\":48.1173,\"longitude\":-11.516667,\"height\":545.4,"
              "\"majorAxis\":2.5,\"minorAxis\":1.5,\"orientation\":45.0,\"verticalUncertainty\":3.25,"
              "\"time\":\"2026-11-21T12:35:19.000Z\",\"age\":0.5,\"quality\":2,\"satellites\":8,\"pdop\":1.5,"
              "\"hdop\":0.9,\"vdop\":1.2,\"speed\":8.0,\"course\":45.5}\n");
    EXPECT_EQ(
        print_position_json({}, {}),
        "{\"utc\":null,\"latitude\":null,\"longitude\":null,\"height\":null,\"majorAxis\":null,"
        "\"minorAxis\":null,\"orientation\":null,\"verticalUncertainty\":null,\"time\":null,\"age\":null,"
        "\"quality\":null,\"satellites\":null,\"pdop\":null,\"hdop\":null,\"vdop\":null,\"speed\":null,"
        "\"course\":null}\n");
}

TEST(PrintJson, ErrorsNameTheirStatus) {
    EXPECT_EQ(print_error_json(kExitBusy, "it \"waits\""),
              "{\"type\":\"error\",\"error\":\"busy\",\"exit\":4,\"message\":\"it \\\"waits\\\"\"}\n");
    EXPECT_EQ(print_error_json(kExitUsage, "x"),
              "{\"type\":\"error\",\"error\":\"usage\",\"exit\":64,\"message\":\"x\"}\n");
}

TEST(PrintJson, RecordsSayTheirType) {
    EXPECT_EQ(print_json(position({})).rfind("{\"type\":\"position\",\"utc\":null,", 0), 0U);
    EXPECT_EQ(print_json(sentence(RecordKind::kChip, "$PZUL001,353,3*00\r\n")),
              "{\"type\":\"chip\",\"sentence\":\"$PZUL001,353,3*00\"}\n");
    EXPECT_EQ(print_json(sentence(RecordKind::kBanner, "TAVOR Version:V1.3\n")),
              "{\"type\":\"banner\",\"text\":\"TAVOR Version:V1.3\"}\n");
    EXPECT_EQ(print_json(result(TAVOR_CODE_SAVE_LOCATION, TAVOR_VALUE_FAILED)),
              "{\"type\":\"result\",\"request\":\"save\",\"ok\":false,\"value\":-1}\n");
    Record unknown;
    unknown.code = 10;
    unknown.value = 7;
    EXPECT_EQ(print_json(unknown), "{\"type\":\"unknown\",\"code\":10,\"value\":7}\n");
}

TEST(PrintPosition, EveryLineHasItsUnit) {
    const std::string known = "latitude              48.117300 deg N\n"
                              "longitude             11.516667 deg W\n"
                              "height                545.4 m\n"
                              "major axis            2.5 m\n"
                              "minor axis            1.5 m\n"
                              "orientation           45.0 deg\n"
                              "vertical uncertainty  3.2 m\n";
    EXPECT_EQ(print_position(kFull, kDetails), "time                  2026-11-21T12:35:19.000Z\n" + known +
                                                   "satellites used       8\n"
                                                   "fix                   differential\n"
                                                   "position DOP          1.50\n"
                                                   "horizontal DOP        0.90\n"
                                                   "vertical DOP          1.20\n"
                                                   "speed                 8.0 m/s\n"
                                                   "course                45.5 deg\n"
                                                   "age                   0.5 s\n");
    const std::string bare = print_position(kFull, {});
    EXPECT_EQ(
        bare.rfind("time                  12:35:19.000 UTC\n" + known + "satellites used       unknown\n", 0),
        0U)
        << bare;
    Fix odd;
    odd.quality = 42;
    EXPECT_NE(print_position({}, {odd, {}, {}}).find("fix                   quality 42\n"),
              std::string::npos);
}

TEST(PrintRaw, BytesAreAsTheChipSentThem) {
    EXPECT_EQ(print_raw(sentence(RecordKind::kNmea, "$GP\x1b\xff*00\r\n")), "$GP\x1b\xff*00\r\n");
    EXPECT_EQ(print_raw(sentence(RecordKind::kNmea, "$GPGGA,1")), "$GPGGA,1\r\n") << "one that was cut";
}

TEST(PrintSeconds, HasNoUselessDigits) {
    EXPECT_EQ(print_seconds(5), "5");
    EXPECT_EQ(print_seconds(0.25), "0.25");
    EXPECT_EQ(print_seconds(1200), "1200");
}
