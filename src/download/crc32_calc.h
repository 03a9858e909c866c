// CRC-32 of IEEE 802.3.
#ifndef TAVOR_CRC32_CALC_H
#define TAVOR_CRC32_CALC_H

#include <cstdint>

inline constexpr uint32_t kCrc32Start = 0xFFFFFFFF;

// The CRC of n bytes; 0 for null or n = 0.
uint32_t crc32_calc(const uint8_t* data, uint32_t n);

// Continues a running value that began with kCrc32Start; its complement is the CRC.
uint32_t crc32_update(uint32_t running, const uint8_t* data, uint32_t n);

#endif
