// Numbers and bits on the wire.
#ifndef TAVOR_BOARD_CHIP_BYTES_H
#define TAVOR_BOARD_CHIP_BYTES_H

#include <cstddef>
#include <cstdint>
#include <vector>

// The little-endian number of the first size bytes, at most 4.
inline uint32_t chip_load_le(const uint8_t* bytes, size_t size) {
    uint32_t value = 0;
    for (size_t i = size; i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

// Appends the number's low size bytes, at most 4, little-endian.
inline void chip_append_le(std::vector<uint8_t>& bytes, uint32_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

// The bits in opposite order.
inline uint8_t chip_mirrored(uint8_t byte) {
    uint8_t result = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        result = static_cast<uint8_t>(result | ((byte >> bit) & 1) << (7 - bit));
    }
    return result;
}

#endif
