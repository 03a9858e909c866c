// Little-endian fields at any address.
#ifndef TAVOR_BYTE_ORDER_H
#define TAVOR_BYTE_ORDER_H

#include <cstdint>

// Each reads or writes 2 or 4 bytes at p.
constexpr uint16_t load_le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8U);
}

constexpr uint32_t load_le32(const uint8_t* p) {
    return load_le16(p) | static_cast<uint32_t>(load_le16(p + 2)) << 16U;
}

constexpr void store_le16(uint8_t* p, uint16_t value) {
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(value >> 8U);
}

constexpr void store_le32(uint8_t* p, uint32_t value) {
    store_le16(p, static_cast<uint16_t>(value));
    store_le16(p + 2, static_cast<uint16_t>(value >> 16U));
}

#endif
