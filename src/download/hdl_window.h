// The sliding window of erase and write: normally one command is in flight, each response sends the next; a
// response that is lost or late lets the next go all the same, and a second pass repeats what was never
// acknowledged.
#ifndef TAVOR_HDL_WINDOW_H
#define TAVOR_HDL_WINDOW_H

#include "download/hdl_image.h"

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

// Sends the part of an image that belongs to the block at address, padded with 0xFF, up to three times until
// the transport takes it. Returns success; failures of the file are logged.
bool download_send_single_block(uint32_t address, const ImageEntry* image);

// Erases the blocks within 45 s. Returns whether the agent acknowledged all.
bool format_sliding_window_flow(FormatBlock* blocks, uint32_t count);

// Writes the blocks of an image whose file has this size, one second allowed for each. Returns whether the
// agent acknowledged all and the file kept its size to the end; a change ends it at once.
bool download_sliding_window_flow(DownloadBlock* blocks, uint32_t count, const ImageEntry* image,
                                  uint64_t size);

#endif
