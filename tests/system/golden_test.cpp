// Logs of our own whose datagrams are known to the last byte. When they change on purpose: scripts/golden.sh.
#include "support/client_fake_daemon.h"
#include "system/golden.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

GoldenLines numbers(int from, int to) {
    GoldenLines lines;
    for (int i = from; i <= to; ++i) {
        lines.push_back(std::to_string(i));
    }
    return lines;
}

// Names of the logs, without .nmea.
std::vector<std::string> log_names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(TAVOR_REPLAY_DIR)) {
        if (entry.path().extension() == ".nmea") {
            names.push_back(entry.path().stem());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

class GoldenReplay : public testing::TestWithParam<std::string> {};

TEST_P(GoldenReplay, ClientGetsTheseDatagrams) {
    const std::string log = std::string(TAVOR_REPLAY_DIR) + "/" + GetParam();
    const std::string difference =
        golden_difference(golden_read(log + ".golden"), golden_replay(log + ".nmea"));
    EXPECT_TRUE(difference.empty()) << GetParam() << ".golden, " << difference
                                    << "scripts/golden.sh --show shows all of it";
}

INSTANTIATE_TEST_SUITE_P(Logs, GoldenReplay, testing::ValuesIn(log_names()), [](const auto& log) {
    std::string name = log.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST(GoldenLine, ShowsCodeValueAndEveryByteUpToTheZeros) {
    EXPECT_EQ(golden_line(make_response(TAVOR_CODE_NMEA, 0, std::string("a\0\"\\\x1f~\x7f\xff\r\n", 10))),
              "6 0 \"a\\x00\\\"\\\\\\x1F~\\x7F\\xFF\\r\\n\"");
    EXPECT_EQ(golden_line(make_response(TAVOR_CODE_START, TAVOR_VALUE_FAILED, "")), "0 -1 \"\"");
    EXPECT_EQ(golden_line(make_response(TAVOR_CODE_CHIP, 7, std::string(TAVOR_PAYLOAD_SIZE, 'x'))),
              "5 7 \"" + std::string(TAVOR_PAYLOAD_SIZE, 'x') + "\"");
}

TEST(GoldenLine, ShowsAPositionByItsFieldsAndWhatIsLeftInThem) {
    std::string payload(TAVOR_POSITION_BLOCK_SIZE, '\0');
    const auto put = [&](size_t at, const std::string& text) { payload.replace(at, text.size(), text); };
    put(0, "123519");
    put(12, std::string("1.5\0x", 5));
    put(27, "-2.5");
    put(42, "8820.160000");
    put(62, "3");
    put(72, "4");
    put(82, "5");
    const std::string fields = "9 0 utc=\"123519\" latitude=\"1.5\\x00x\" longitude=\"-2.5\" "
                               "height=\"8820.16000\" majorAxis=\"0\" minorAxis=\"3\" orientation=\"4\" "
                               "verticalUncertainty=\"5\"";
    EXPECT_EQ(golden_line(make_response(TAVOR_CODE_POSITION, 0, payload)), fields);
    put(255, "y");
    EXPECT_EQ(
        golden_line(make_response(TAVOR_CODE_POSITION, 0, payload)).rfind(fields + " behind=\"\\x00", 0), 0U);
}

TEST(GoldenDifference, ShowsTheFirstLinesThatDifferWithTheOnesBefore) {
    GoldenLines actual = numbers(1, 12);
    actual[5] = "x";
    EXPECT_EQ(golden_difference(numbers(1, 12), actual),
              "line 6 (12 lines expected, 12 came):\n 3\n 4\n 5\n-6\n-7\n-8\n-9\n-10\n+x\n+7\n+8\n+9\n+10\n");
}

TEST(GoldenDifference, ShowsLinesThatAreMissingOrTooMany) {
    EXPECT_EQ(golden_difference(numbers(1, 9), numbers(1, 9)), "");
    EXPECT_EQ(golden_difference(numbers(1, 3), numbers(1, 2)),
              "line 3 (3 lines expected, 2 came):\n 1\n 2\n-3\n");
    EXPECT_EQ(golden_difference({}, numbers(1, 1)), "line 1 (0 lines expected, 1 came):\n+1\n");
}
