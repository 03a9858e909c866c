#include "download/crc32_calc.h"

#include "base/byte_order.h"

#include <array>

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320; // reflected
constexpr uint32_t kStep = 16;               // bytes taken at once

using Table = std::array<uint32_t, 256>;

constexpr uint32_t after_zero_byte(uint32_t running) {
    for (int bit = 0; bit < 8; ++bit) {
        running = running >> 1U ^ ((running & 1U) != 0 ? kPolynomial : 0);
    }
    return running;
}

// tables[k][b]: what byte b does to the running value when k more bytes follow it within the step.
constexpr std::array<Table, kStep> make_tables() {
    std::array<Table, kStep> tables = {};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        tables[0][byte] = after_zero_byte(byte);
    }
    for (uint32_t k = 1; k < kStep; ++k) {
        for (uint32_t byte = 0; byte < 256; ++byte) {
            const uint32_t nearer = tables[k - 1][byte];
            tables[k][byte] = nearer >> 8U ^ tables[0][nearer & 0xFFU];
        }
    }
    return tables;
}

constexpr std::array<Table, kStep> kTables = make_tables();

// The share of four bytes, the first of them with `following` more bytes behind it.
uint32_t share(uint32_t word, uint32_t following) {
    return kTables[following][word & 0xFFU] ^ kTables[following - 1][word >> 8U & 0xFFU] ^
           kTables[following - 2][word >> 16U & 0xFFU] ^ kTables[following - 3][word >> 24U];
}

uint32_t take_step(uint32_t running, const uint8_t* data) {
    return share(running ^ load_le32(data), 15) ^ share(load_le32(data + 4), 11) ^
           share(load_le32(data + 8), 7) ^ share(load_le32(data + 12), 3);
}

} // namespace

uint32_t crc32_calc(const uint8_t* data, uint32_t n) {
    if (data == nullptr || n == 0) {
        return 0;
    }
    return ~crc32_update(kCrc32Start, data, n);
}

uint32_t crc32_update(uint32_t running, const uint8_t* data, uint32_t n) {
    for (; n >= kStep; n -= kStep) {
        running = take_step(running, data);
        data += kStep;
    }
    for (; n > 0; --n) {
        running = running >> 8U ^ kTables[0][(running ^ *data++) & 0xFFU];
    }
    return running;
}
