#include "link/location_command.h"

#include "mux/location_serial_port.h"
#include "support/capture.h"
#include "support/format_fault.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using std::string;

struct FakeLink {
    std::vector<string> written;
    int32_t result = 1;
} fake;

// Sends the body over a link whose write has this result, and returns the sentence.
string sent(const string& body, int32_t write_result, int32_t expected) {
    fake = {{}, write_result};
    int32_t result = 99;
    const string log = capture_stdout([&] { result = location_command_send(body.c_str()); });
    EXPECT_EQ(result, expected);
    EXPECT_EQ(fake.written.size(), 1U);
    const string sentence = fake.written.empty() ? "" : fake.written[0];
    EXPECT_EQ(log, "[LOCSERV] INF: location_command_send, " + sentence + "\n");
    return sentence;
}

string checksum_of(const string& text) {
    unsigned sum = 0;
    for (const char c : text) {
        sum ^= static_cast<uint8_t>(c);
    }
    constexpr char kDigits[] = "0123456789ABCDEF";
    return {kDigits[sum >> 4], kDigits[sum & 15]};
}

} // namespace

int32_t location_serial_port_gnss_write(const uint8_t* data, uint32_t length) {
    fake.written.emplace_back(reinterpret_cast<const char*>(data), length);
    return fake.result;
}

TEST(LocationCommand, BodyIsWrappedWithTalkerAndChecksum) {
    EXPECT_EQ(sent("590,2024,01,02,03,04,05", 35, 0), "$PZUL590,2024,01,02,03,04,05*2A\r\n");
}

TEST(LocationCommand, EmptyBodyIsSent) {
    EXPECT_EQ(sent("", 10, 0), "$PZUL*" + checksum_of("PZUL") + "\r\n");
}

TEST(LocationCommand, ChecksumDigitsAreTwoAndUpperCase) {
    for (int n = 0; n < 256; ++n) {
        const string body = std::to_string(n);
        EXPECT_EQ(sent(body, 1, 0), "$PZUL" + body + "*" + checksum_of("PZUL" + body) + "\r\n");
    }
}

TEST(LocationCommand, BodyGoesAsItStands) {
    EXPECT_EQ(sent("%s%n*\r\n", 1, 0), "$PZUL%s%n*\r\n*" + checksum_of("PZUL%s%n*\r\n") + "\r\n");
}

TEST(LocationCommand, BodyOf347CharactersFits) {
    const string body(347, '7');
    EXPECT_EQ(sent(body, 1, 0), "$PZUL" + body + "*" + checksum_of("PZUL" + body) + "\r\n");
}

TEST(LocationCommand, LongerBodyIsCutWithTheChecksumOfTheCutText) {
    const string cut(347, '7');
    const string expected = "$PZUL" + cut + "*" + checksum_of("PZUL" + cut) + "\r\n";
    EXPECT_EQ(sent(cut + "8", 1, 0), expected);
    EXPECT_EQ(sent(cut + string(5000, '9'), 1, 0), expected);
}

TEST(LocationCommand, OneByteTakenIsSuccess) {
    sent("1", 1, 0);
}

TEST(LocationCommand, NothingTakenIsFailure) {
    sent("1", 0, -1);
    sent("1", -1, -1);
}

TEST(LocationCommand, TextThatCannotBeFormattedIsReported) {
    fake = {};
    int32_t result = 99;
    const string log = capture_stdout([&] {
        format_fault_arm(0);
        result = location_command_send("590");
        format_fault_disarm();
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_command_send get temp_buffer fail\n");
    EXPECT_TRUE(fake.written.empty());
}

TEST(LocationCommand, MissingBodyIsRefused) {
    fake = {};
    int32_t result = 99;
    const string log = capture_stdout([&] { result = location_command_send(nullptr); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_command_send get temp_buffer fail\n");
    EXPECT_TRUE(fake.written.empty());
}
