// The sliding window of erase and write: normally one command is in flight, each response sends the next; a
// response that is lost or late lets the next go all the same, and a second pass repeats what was never
// acknowledged.
#ifndef TAVOR_HDL_WINDOW_H
#define TAVOR_HDL_WINDOW_H

#include "download/hdl_flash_block.h"
#include "download/hdl_image.h"

#include <cstdint>

// Erases the blocks within 45 s. Returns whether the agent acknowledged all.
bool format_sliding_window_flow(FormatBlock* blocks, uint32_t count);

// Writes the blocks of an image, one second allowed for each. Returns whether the agent acknowledged all.
bool download_sliding_window_flow(DownloadBlock* blocks, uint32_t count, const ImageEntry* image);

#endif
