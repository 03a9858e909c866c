#include "download/crc32_calc.h"

#include <array>

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320; // reflected

using Table = std::array<uint32_t, 256>;

// What each byte does to the running value.
constexpr Table make_table() {
    Table table = {};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        table[byte] = byte;
        for (int bit = 0; bit < 8; ++bit) {
            table[byte] = table[byte] >> 1U ^ ((table[byte] & 1U) != 0 ? kPolynomial : 0);
        }
    }
    return table;
}

constexpr Table kTable = make_table();

} // namespace

uint32_t crc32_calc(const uint8_t* data, uint32_t n) {
    if (data == nullptr || n == 0) {
        return 0;
    }
    return ~crc32_update(kCrc32Start, data, n);
}

uint32_t crc32_update(uint32_t running, const uint8_t* data, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        running = running >> 8U ^ kTable[(running ^ data[i]) & 0xFFU];
    }
    return running;
}
