#include "nmea/location_frame.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using std::string;
using std::string_literals::operator""s;

constexpr size_t kBufferSize = 15360; // of the receive thread

struct Frame {
    uint32_t type;
    string bytes;
};

bool operator==(const Frame& a, const Frame& b) {
    return a.type == b.type && a.bytes == b.bytes;
}

const uint8_t* bytes_of(const string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

// Result of one call as "type:count".
string parse(const string& data) {
    uint32_t type = 99;
    const uint32_t count = location_io_frame_parse(bytes_of(data), static_cast<uint32_t>(data.size()), &type);
    return std::to_string(type) + ":" + std::to_string(count);
}

uint8_t xor_of(const string& text) {
    uint8_t sum = 0;
    for (const char c : text) {
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
    }
    return sum;
}

string sentence(const string& body, const char* format = "%02X") {
    char digits[3];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    snprintf(digits, sizeof digits, format, xor_of(body));
#pragma GCC diagnostic pop
    return "$" + body + "*" + digits + "\r\n";
}

string binary(const string& payload) {
    const auto length = payload.size();
    const string covered =
        "\x11\x22"s + static_cast<char>(length & 0xFF) + static_cast<char>(length >> 8) + payload;
    return "\x04$"s + covered + static_cast<char>(xor_of(covered)) + "\xAA"s + "D";
}

string result(uint32_t type, size_t count) {
    return std::to_string(type) + ":" + std::to_string(count);
}

const string kGga = sentence("GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,");

// What the receive thread makes of a stream that arrives in these blocks: the frames that are not dropped.
std::vector<Frame> frames_of(const std::vector<string>& blocks) {
    std::vector<Frame> frames;
    string buffer;
    for (const string& block : blocks) {
        for (size_t at = 0; at < block.size();) {
            const size_t n = std::min(block.size() - at, kBufferSize - buffer.size());
            buffer.append(block, at, n);
            at += n;
            uint32_t type = FRAME_NONE;
            while (const uint32_t used = location_io_frame_parse(
                       bytes_of(buffer), static_cast<uint32_t>(buffer.size()), &type)) {
                if (type != FRAME_NONE) {
                    frames.push_back({type, buffer.substr(0, used)});
                }
                buffer.erase(0, used);
            }
            if (buffer.size() == kBufferSize) {
                buffer.clear();
            }
        }
    }
    return frames;
}

// Cuts a stream into blocks of this size, but never between 0x04 and '$', where a cut makes noise of the
// 0x04.
std::vector<string> cut(const string& stream, size_t size) {
    std::vector<string> blocks;
    for (size_t at = 0; at < stream.size();) {
        size_t end = std::min(stream.size(), at + size);
        while (end < stream.size() && stream[end - 1] == '\x04' && stream[end] == '$') {
            ++end;
        }
        blocks.push_back(stream.substr(at, end - at));
        at = end;
    }
    return blocks;
}

} // namespace

TEST(LocationFrame, BytesAsTheyAreTakenOrDropped) {
    const string cut_short = "$GPGGA,1,2,3\r\n";
    const string with_nul = sentence("GPTXT,a\0b,c"s);
    const struct {
        const char* what;
        string data;
        string expected; // type and count
    } rows[] = {
        {"nothing waits", "", "0:0"},
        {"one byte too", "x", "0:0"},
        {"a start too", "$", "0:0"},
        {"of either kind", "\x04", "0:0"},
        {"bytes without a start are dropped whole", "xy", "0:2"},
        {"whatever they are", "xyz\r\n*00", "0:8"},
        {"a whole buffer", string(kBufferSize, 'x'), "0:15360"},
        {"noise before a sentence is dropped first", "xy" + kGga, "0:2"},
        {"before half of one", "x$", "0:1"},
        {"before a binary frame", "x" + binary("p"), "0:1"},
        {"fewer than eleven bytes are not judged", "$GP1234567", "0:0"},
        {"a wrong talker neither", "$XX1234567", "0:0"},
        {"eleven are", "$XX12345678", "0:1"},
        {"a sentence of eight bytes waits for three more", "$GP*17\r\n", "0:0"},
        {"and is taken", "$GP*17\r\nabc", "1:8"},
        {"no star waits however long", "$GPGGA," + string(kBufferSize - 7, '1'), "0:0"},
        {"over line ends", "$GPGGA,1,2\r\n$GPGGA,1,2\r\n", "0:0"},
        {"without its star a sentence swallows the next", cut_short + kGga,
         result(FRAME_NONE, cut_short.size() + kGga.size())},
        {"an early star ends it: bad checksum", "$GP*00\r\nabc", "0:8"},
        {"of a response", "$PZUL*5C\r\nabc", "0:10"},
        {"with a good one", sentence("PZUL") + "a", result(FRAME_PZUL, 10)},
        {"the first star counts", "$GP*1*2\r\nabc", "0:1"},
        {"a NUL is a byte like any other", with_nul, result(FRAME_NMEA, with_nul.size())},
        {"four without a dollar is noise", "\x04\x04$", "0:1"},
        {"before anything", "\x04x" + kGga, "0:2"},
        {"as the last byte it goes with the noise", "x\x04", "0:2"},
        {"behind itself too", "\x04\x04", "0:2"},
        {"with a dollar it stays", "x\x04$", "0:1"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(parse(row.data), row.expected) << row.what;
    }
}

TEST(LocationFrame, UnknownTalkerDropsTheDollarSignOnly) {
    for (const string& talker : {"XX"s, "GC"s, "gp"s, "PZUK"s, "PZu"s, "PQ"s, "\0G"s, "G$"s}) {
        EXPECT_EQ(parse(sentence(talker + "ZDA,1,2,3")), "0:1") << talker;
    }
    const string data = sentence("XXZDA,1,2,3") + kGga;
    EXPECT_EQ(parse(data.substr(1)), result(FRAME_NONE, sentence("XXZDA,1,2,3").size() - 1));
}

TEST(LocationFrame, EverySixTalkersAndPzulAreTaken) {
    for (const string talker : {"GP", "GL", "GB", "GA", "GI", "GN"}) {
        const string good = sentence(talker + "ZDA,1,2");
        EXPECT_EQ(parse(good), result(FRAME_NMEA, good.size())) << talker;
    }
    const string response = sentence("PZUL010,1,2,3");
    EXPECT_EQ(parse(response), result(FRAME_PZUL, response.size()));
}

TEST(LocationFrame, SentenceWaitsForItsTail) {
    for (size_t length = 11; length < kGga.size(); ++length) {
        ASSERT_EQ(parse(kGga.substr(0, length)), "0:0") << length;
    }
    EXPECT_EQ(parse(kGga), result(FRAME_NMEA, kGga.size()));
    EXPECT_EQ(parse(kGga + "$"), result(FRAME_NMEA, kGga.size()));
}

TEST(LocationFrame, WrongChecksumDropsTheSentenceWhole) {
    string bad = kGga;
    bad[10] = static_cast<char>(bad[10] ^ 1);
    EXPECT_EQ(parse(bad), result(FRAME_NONE, bad.size()));
    EXPECT_EQ(parse(bad + kGga), result(FRAME_NONE, bad.size()));
}

TEST(LocationFrame, LowerCaseChecksumDropsTheDollarSignOnly) {
    const string body = "GPGGA,123519,1";
    const string lower = sentence(body, "%02x");
    ASSERT_NE(lower, sentence(body)) << "the checksum needs a letter";
    EXPECT_EQ(parse(lower), "0:1");
    EXPECT_EQ(parse(lower.substr(1)), result(FRAME_NONE, lower.size() - 1));
}

TEST(LocationFrame, WrongTailDropsTheDollarSignOnly) {
    const string start = "$GPGGA,1,2,3";
    for (const string tail : {"*00\n\r", "*00\r\r", "*00\n\n", "*00 \r\n", "*0G\r\n", "*g0\r\n", "*:0\r\n",
                              "*/0\r\n", "*@0\r\n"}) {
        EXPECT_EQ(parse(start + tail), "0:1") << tail;
    }
}

TEST(LocationFrame, BinaryFrameIsTaken) {
    for (const size_t length : {size_t{0}, size_t{1}, size_t{255}, size_t{256}, kBufferSize - 9}) {
        const string frame = binary(string(length, '$'));
        EXPECT_EQ(parse(frame), result(FRAME_BINARY, frame.size())) << length;
        EXPECT_EQ(parse(frame + "$"), result(FRAME_BINARY, frame.size())) << length;
        EXPECT_EQ(parse(frame.substr(0, frame.size() - 1)), "0:0") << length;
    }
}

TEST(LocationFrame, BinaryFrameWaitsForItsHeaderAndPayload) {
    const string frame = binary("");
    for (size_t length = 2; length < frame.size(); ++length) {
        EXPECT_EQ(parse(frame.substr(0, length)), "0:0") << length;
    }
    const string too_long = "\x04$\x01\x02\xFF\xFF"s + string(kBufferSize - 6, 'x');
    EXPECT_EQ(parse(too_long), "0:0") << "65,535 bytes of payload never fit the receive buffer";
}

TEST(LocationFrame, LongestBinaryFrameOfTheFormatIsTaken) {
    const string frame = binary(string(65535, 'x'));
    EXPECT_EQ(parse(frame), result(FRAME_BINARY, 65544));
}

TEST(LocationFrame, WrongBinaryTailDropsTheTwoStartBytes) {
    string frame = binary("payload");
    frame.back() = 'd';
    EXPECT_EQ(parse(frame), "0:2");
    frame = binary("payload");
    frame[frame.size() - 2] = '\xAB';
    EXPECT_EQ(parse(frame), "0:2");
    EXPECT_EQ(parse(frame.substr(2) + kGga), result(FRAME_NONE, frame.size() - 2))
        << "scanning goes on behind them";
}

TEST(LocationFrame, WrongBinaryChecksumDropsTheFrameWhole) {
    string frame = binary("payload");
    frame[6] = 'P';
    EXPECT_EQ(parse(frame), result(FRAME_NONE, frame.size()));
    frame = binary("payload");
    frame[2] = '\x12'; // the two bytes before the length are covered
    EXPECT_EQ(parse(frame), result(FRAME_NONE, frame.size()));
}

TEST(LocationFrame, BytesBehindTheLengthDoNotCount) {
    uint32_t type = 99;
    EXPECT_EQ(location_io_frame_parse(bytes_of("x\x04$"), 2, &type), 2U);
    EXPECT_EQ(location_io_frame_parse(bytes_of("x$"), 1, &type), 0U);
    EXPECT_EQ(location_io_frame_parse(bytes_of(kGga), static_cast<uint32_t>(kGga.size()) - 1, &type), 0U);
    EXPECT_EQ(type, FRAME_NONE);
}

TEST(LocationFrame, ChecksumsAreTheXorOfTheBytes) {
    const uint8_t data[] = {0x12, 0x34, 0xFF};
    EXPECT_EQ(location_nmea_checksum(data, 3), 0x12 ^ 0x34 ^ 0xFF);
    EXPECT_EQ(location_nmea_checksum(data, 0), 0);
    EXPECT_EQ(location_nmea_checksum(data, -1), 0);
    EXPECT_EQ(location_binary_checksum(data, 2), 0x12 ^ 0x34);
    EXPECT_EQ(location_binary_checksum(data, 0), 0);
    EXPECT_EQ(location_binary_checksum(nullptr, 5), 0);
}

TEST(LocationFrame, EveryCutOfAStreamGivesTheSameFrames) {
    const string stream = kGga + "noise" + sentence("GNRMC,1,2,3") + binary("payload") + "*" +
                          sentence("PZUL010,1,2") + sentence("GPGGA,123519,1", "%02x") + "\r\n" + binary("") +
                          sentence("GPXXX,\x04$") + sentence("XXGGA,1") + binary(string(300, '$')) +
                          kGga.substr(0, 20) + kGga + kGga + "$GP" + kGga + kGga + "\x04" + kGga +
                          "\x04$\x01";
    const std::vector<Frame> whole = frames_of({stream});
    EXPECT_EQ(whole.size(), 9U);
    for (size_t size = 1; size < stream.size(); ++size) {
        ASSERT_TRUE(frames_of(cut(stream, size)) == whole) << "blocks of " << size;
    }
}

TEST(LocationFrame, SentencesBehindAnUnendingOneComeBackAfterAFullBuffer) {
    const string endless = "$GPGGA," + string(kBufferSize - 7, '1');
    const std::vector<Frame> expected = {{FRAME_NMEA, kGga}};
    EXPECT_TRUE(frames_of({endless + kGga}) == expected);
    EXPECT_TRUE(frames_of(cut(endless + kGga, 1)) == expected);
    EXPECT_TRUE(frames_of(cut(endless + kGga, 4095)) == expected);
}
