// A block of bytes, as the tests hold what goes over a wire or into a file.
#ifndef TAVOR_TESTS_BYTES_H
#define TAVOR_TESTS_BYTES_H

#include <cstddef>
#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Little-endian fields.
inline Bytes le16(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

inline Bytes le32(uint32_t value) {
    return le16(value) + le16(value >> 16);
}

// The field of n bytes, at most 4, at this place.
inline uint32_t le_at(const Bytes& bytes, size_t at, size_t n) {
    uint32_t value = 0;
    for (size_t i = n; i-- > 0;) {
        value = value << 8U | bytes.at(at + i);
    }
    return value;
}

// CRC-32, bit by bit.
inline uint32_t slow_crc32(const Bytes& data) {
    uint32_t crc = ~0U;
    for (const uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~crc;
}

#endif
