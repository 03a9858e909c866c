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

// A buffer decoded in place: the count and the whole buffer behind it.
struct Decoded {
    uint32_t count;
    std::string buffer;
    bool operator==(const Decoded&) const = default;
};

Decoded unescape(std::string buffer, uint32_t* state) {
    const uint32_t count = location_uart_unescape(reinterpret_cast<uint8_t*>(buffer.data()),
                                                  static_cast<uint32_t>(buffer.size()), state);
    return {count, buffer};
}

std::string all_bytes() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    return bytes;
}

constexpr char kNul = '\0';

} // namespace

TEST(LocationUartEscape, ThreeBytesAreSentAsPairs) {
    EXPECT_EQ(escape("\x77\x11\x41"), "\x77\x88\x77\xEE\x41");
    EXPECT_EQ(escape("\x13"), "\x77\xEC");
}

TEST(LocationUartEscape, EveryOtherByteIsSentAsItIs) {
    const std::string escaped = escape(all_bytes());
    EXPECT_EQ(escaped.size(), 256U + 3);
    EXPECT_EQ(escaped.find('\x11'), std::string::npos);
    EXPECT_EQ(escaped.find('\x13'), std::string::npos);
}

TEST(LocationUartEscape, NothingEscapesToNothing) {
    EXPECT_EQ(escape(""), "");
}

TEST(LocationUartUnescape, UndoesTheEscapingOfEveryByte) {
    uint32_t state = 0;
    const Decoded decoded = unescape(escape(all_bytes()), &state);
    EXPECT_EQ(decoded.count, 256U);
    EXPECT_EQ(decoded.buffer.substr(0, 256), all_bytes());
    EXPECT_EQ(state, 0U);
}

TEST(LocationUartUnescape, WhatBecomesFreeIsZeroed) {
    uint32_t state = 0;
    EXPECT_EQ(unescape("\x77\x88\x77\xEE\x41", &state),
              (Decoded{3, std::string("\x77\x11\x41") + kNul + kNul}));
}

TEST(LocationUartUnescape, EscapeByteAtTheEndIsCarriedOverToTheNextCall) {
    uint32_t state = 0;
    EXPECT_EQ(unescape("AB\x77", &state), (Decoded{2, std::string("AB") + kNul}));
    EXPECT_EQ(state, 1U);
    EXPECT_EQ(unescape("\xEC\x43", &state), (Decoded{2, "\x13\x43"}));
    EXPECT_EQ(state, 0U);
}

TEST(LocationUartUnescape, EscapeByteAloneDeliversNothing) {
    uint32_t state = 0;
    EXPECT_EQ(unescape("\x77", &state), (Decoded{0, std::string(1, kNul)}));
    EXPECT_EQ(state, 1U);
}

TEST(LocationUartUnescape, PendingEscapeSurvivesAnEmptyRead) {
    uint32_t state = 1;
    EXPECT_EQ(unescape("", &state), (Decoded{0, ""}));
    EXPECT_EQ(state, 1U);
}

TEST(LocationUartUnescape, UnknownPartnerIsLoggedAndItsSlotKeepsItsOldContent) {
    uint32_t state = 0;
    Decoded decoded{};
    const std::string log = capture_stdout([&] { decoded = unescape("\x77\x41", &state); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [UART]unrecognized char 0x41\n");
    EXPECT_EQ(decoded, (Decoded{2, "\x77\x41"}));
    EXPECT_EQ(state, 0U);
}

TEST(LocationUartUnescape, BytesBehindAnUnknownPartnerMoveUpByOne) {
    uint32_t state = 0;
    Decoded decoded{};
    capture_stdout([&] {
        decoded = unescape("A\x77\x42"
                           "C",
                           &state);
    });
    EXPECT_EQ(decoded, (Decoded{4, "A\x77"
                                   "CC"}));
}

TEST(LocationUartUnescape, UnknownPartnerOfACarriedOverEscapeCountsOneMoreThanWasRead) {
    uint32_t state = 1;
    Decoded decoded{};
    const std::string log = capture_stdout([&] { decoded = unescape("\xFE", &state); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [UART]unrecognized char 0xfe\n");
    EXPECT_EQ(decoded, (Decoded{2, "\xFE"}));
}

TEST(LocationUartUnescape, EscapeByteBehindAnEscapeByteIsNotItsPartner) {
    uint32_t state = 0;
    EXPECT_EQ(unescape("\x77\x77\x88", &state), (Decoded{2, std::string("\x77\x77") + kNul}));
    EXPECT_EQ(state, 0U);
}
