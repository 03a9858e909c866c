#include "download/crc32_calc.h"
#include "support/bytes.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <numeric>
#include <string>

namespace {

uint32_t crc_of(const std::string& text) {
    return crc32_calc(reinterpret_cast<const uint8_t*>(text.data()), static_cast<uint32_t>(text.size()));
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

TEST(Crc32, EveryByteCounts) {
    Bytes all(256);
    std::iota(all.begin(), all.end(), uint8_t{0});
    EXPECT_EQ(crc32_calc(all.data(), 256), 0x29058C73U);
}

TEST(Crc32, PiecesGiveTheCrcOfTheWhole) {
    const Bytes bytes = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    const uint32_t running = crc32_update(crc32_update(kCrc32Start, bytes.data(), 4), bytes.data() + 4, 5);
    EXPECT_EQ(~running, 0xCBF43926U);
    EXPECT_EQ(crc32_update(running, bytes.data(), 0), running);
}
