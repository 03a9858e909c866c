#include "download/crc32_calc.h"
#include "support/bytes.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

uint32_t crc_of(const std::string& text) {
    return crc32_calc(reinterpret_cast<const uint8_t*>(text.data()), static_cast<uint32_t>(text.size()));
}

// Bit by bit, as the polynomial says.
uint32_t slow_crc(const uint8_t* data, size_t n) {
    uint32_t running = 0xFFFFFFFF;
    for (size_t i = 0; i < n; ++i) {
        running ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            running = (running & 1U) != 0 ? running >> 1U ^ 0xEDB88320U : running >> 1U;
        }
    }
    return ~running;
}

Bytes some_bytes(size_t n) {
    Bytes bytes(n);
    uint32_t value = 1;
    for (uint8_t& byte : bytes) {
        value = value * 1664525U + 1013904223U;
        byte = static_cast<uint8_t>(value >> 24U);
    }
    return bytes;
}

} // namespace

TEST(Crc32, KnownValues) {
    EXPECT_EQ(crc_of("123456789"), 0xCBF43926U);
    EXPECT_EQ(crc_of("a"), 0xE8B7BE43U);
    EXPECT_EQ(crc_of("The quick brown fox jumps over the lazy dog"), 0x414FA339U);
    EXPECT_EQ(crc_of(std::string(32, '\0')), 0x190A55ADU);
}

TEST(Crc32, NothingHasCrcZero) {
    const uint8_t byte = 1;
    EXPECT_EQ(crc32_calc(nullptr, 5), 0U);
    EXPECT_EQ(crc32_calc(&byte, 0), 0U);
}

TEST(Crc32, EveryLengthAndAlignmentAgreesWithTheDefinition) {
    const Bytes bytes = some_bytes(100);
    for (uint32_t begin = 0; begin < 17; ++begin) {
        for (uint32_t n = 1; n <= 80; ++n) {
            ASSERT_EQ(crc32_calc(bytes.data() + begin, n), slow_crc(bytes.data() + begin, n))
                << begin << ' ' << n;
        }
    }
}

TEST(Crc32, PiecesGiveTheCrcOfTheWhole) {
    const Bytes bytes = some_bytes(1000);
    for (uint32_t piece = 1; piece < 70; ++piece) {
        uint32_t running = kCrc32Start;
        for (uint32_t at = 0; at < 1000; at += piece) {
            running = crc32_update(running, bytes.data() + at, std::min(piece, 1000 - at));
        }
        ASSERT_EQ(~running, slow_crc(bytes.data(), bytes.size())) << piece;
    }
}
