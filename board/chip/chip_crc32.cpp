#include "chip/chip_crc32.h"

#include <array>

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320;

constexpr std::array<uint32_t, 256> make_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? value >> 1 ^ kPolynomial : value >> 1;
        }
        table[byte] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kTable = make_table();

} // namespace

uint32_t chip_crc32(const uint8_t* data, size_t length) {
    uint32_t value = 0xFFFFFFFF;
    for (size_t i = 0; i < length; ++i) {
        value = value >> 8 ^ kTable[(value ^ data[i]) & 0xFF];
    }
    return ~value;
}
