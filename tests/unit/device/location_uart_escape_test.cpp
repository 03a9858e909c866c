#include "device/location_uart_escape.h"

#include "support/capture.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string escape(const std::string& plain) {
    std::string out(2 * plain.size(), '\0');
    const uint32_t count =
        location_uart_escape(reinterpret_cast<const uint8_t*>(plain.data()),
                             static_cast<uint32_t>(plain.size()), reinterpret_cast<uint8_t*>(out.data()));
    return out.substr(0, count);
}

// Decodes the buffer in place; returns the count.
uint32_t unescape(std::string& buffer, uint32_t* state) {
    return location_uart_unescape(reinterpret_cast<uint8_t*>(buffer.data()),
                                  static_cast<uint32_t>(buffer.size()), state);
}

std::string all_bytes() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    return bytes;
}

} // namespace

TEST(LocationUartEscape, ThreeBytesAreSentAsPairs) {
    EXPECT_EQ(escape("\x77\x11\x41"), "\x77\x88\x77\xEE\x41");
    EXPECT_EQ(escape("\x13"), "\x77\xEC");
    EXPECT_EQ(escape(""), "");
}

TEST(LocationUartEscape, EveryOtherByteIsSentAsItIs) {
    const std::string escaped = escape(all_bytes());
    EXPECT_EQ(escaped.size(), 256U + 3);
    EXPECT_EQ(escaped.find('\x11'), std::string::npos);
    EXPECT_EQ(escaped.find('\x13'), std::string::npos);
}

TEST(LocationUartUnescape, UndoesTheEscapingOfEveryByte) {
    uint32_t state = 0;
    std::string buffer = escape(all_bytes());
    EXPECT_EQ(unescape(buffer, &state), 256U);
    EXPECT_EQ(buffer.substr(0, 256), all_bytes());
    EXPECT_EQ(state, 0U);
}

TEST(LocationUartUnescape, BufferCountAndStateBehindEachRead) {
    using std::string_literals::operator""s;
    const struct {
        const char* what;
        uint32_t state;
        std::string read;
        uint32_t count;
        std::string buffer;
        uint32_t next_state;
        const char* unknown; // as it is logged
    } rows[] = {
        {"what becomes free is zeroed", 0, "\x77\x88\x77\xEE\x41", 3, "\x77\x11\x41\0\0"s, 0, ""},
        {"an escape byte at the end is carried over", 0, "AB\x77", 2, "AB\0"s, 1, ""},
        {"to the next read", 1, "\xEC\x43", 2, "\x13\x43", 0, ""},
        {"alone it delivers nothing", 0, "\x77", 0, "\0"s, 1, ""},
        {"and survives an empty read", 1, "", 0, "", 1, ""},
        {"an unknown partner's place keeps its content", 0, "\x77\x41", 2, "\x77\x41", 0, "41"},
        {"what is behind it moves up by one", 0, "A\x77\x42"s + "C", 4, "A\x77"s + "CC", 0, "42"},
        {"of a carried one it counts one more than was read", 1, "\xFE", 2, "\xFE", 0, "fe"},
        {"an escape byte is no partner of another", 0, "\x77\x77\x88", 2, "\x77\x77\0"s, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::string buffer = row.read;
        uint32_t state = row.state;
        const std::string log = capture_stdout([&] { EXPECT_EQ(unescape(buffer, &state), row.count); });
        EXPECT_EQ(buffer, row.buffer);
        EXPECT_EQ(state, row.next_state);
        const std::string told = "[LOCSERV] ERR: [UART]unrecognized char 0x";
        EXPECT_EQ(log, row.unknown[0] == '\0' ? "" : told + row.unknown + "\n");
    }
}
