// Commands that change one block of the flash: built and sent, not waited for.
#ifndef TAVOR_HDL_FLASH_SEND_H
#define TAVOR_HDL_FLASH_SEND_H

#include "download/hdl_flash_block.h"
#include "download/hdl_image.h"

#include <cstdint>

// Sends the erase of a block, up to three times until the transport takes it. Returns success.
bool format_send_single_block(const FormatBlock* block);

// Sends the part of an image that belongs to the block at address, filled up with 0xFF, up to three times
// until the transport takes it. Returns success; failures of the file are logged.
bool download_send_single_block(uint32_t address, const ImageEntry* image);

#endif
