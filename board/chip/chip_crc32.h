// CRC-32 as the download agent computes it: reflected polynomial 0xEDB88320, start and end complemented.
#ifndef TAVOR_BOARD_CHIP_CRC32_H
#define TAVOR_BOARD_CHIP_CRC32_H

#include <cstddef>
#include <cstdint>

uint32_t chip_crc32(const uint8_t* data, size_t length);

#endif
