// The blocks of an erase or of an image, and which blocks an erase consists of.
#ifndef TAVOR_HDL_FLASH_BLOCK_H
#define TAVOR_HDL_FLASH_BLOCK_H

#include <cstdint>

inline constexpr uint32_t kFlashBlockSize = 4096; // bytes
inline constexpr uint32_t kFlashLargeBlockSize = 65536;

struct FlashBlock {
    uint32_t address;
    uint32_t length; // bytes
    uint8_t sent;    // 1 once its command went out
    uint8_t acked;   // 1 once the agent's response named its address
};
using FormatBlock = FlashBlock;
using DownloadBlock = FlashBlock; // its length is always kFlashBlockSize

// How many blocks the erase of [start, start + length) takes. Nothing lies beyond the 32-bit addresses.
uint32_t hdl_erase_plan_count(uint32_t start, uint32_t length);

// Fills as many blocks, all neither sent nor acknowledged. The last one may reach beyond the range.
void hdl_erase_plan_fill(uint32_t start, uint32_t length, FormatBlock* blocks);

#endif
