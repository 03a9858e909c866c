#include "link/location_command.h"

#include "mux/location_serial_port.h"
#include "support/capture.h"
#include "support/format_fault.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
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
    const string longest(347, '7');
    const std::pair<string, string> rows[] = {
        {"", ""},
        {"%s%n*\r\n", "%s%n*\r\n"}, // as it stands
        {longest, longest},
        {longest + "8", longest}, // cut, with the checksum of the cut text
        {longest + string(5000, '9'), longest}};
    for (const auto& [body, taken] : rows) {
        EXPECT_EQ(sent(body, 1, 0), "$PZUL" + taken + "*" + checksum_of("PZUL" + taken) + "\r\n");
    }
}

TEST(LocationCommand, ChecksumDigitsAreTwoAndUpperCase) {
    for (int n = 0; n < 256; ++n) {
        const string body = std::to_string(n);
        EXPECT_EQ(sent(body, 1, 0), "$PZUL" + body + "*" + checksum_of("PZUL" + body) + "\r\n");
    }
}

TEST(LocationCommand, NothingTakenIsFailure) {
    sent("1", 0, -1);
    sent("1", -1, -1);
}

TEST(LocationCommand, MissingBodyAndTextThatCannotBeFormattedAreReported) {
    fake = {};
    for (const char* body : {"590", static_cast<const char*>(nullptr)}) {
        format_fault_arm(body == nullptr ? 9 : 0);
        EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(location_command_send(body), -1); }),
                  "[LOCSERV] ERR: location_command_send get temp_buffer fail\n");
        format_fault_disarm();
    }
    EXPECT_TRUE(fake.written.empty());
}
