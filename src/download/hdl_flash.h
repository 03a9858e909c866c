// Flash-wide work of the download agent: erase, write of images, check of images. Failures are logged.
#ifndef TAVOR_HDL_FLASH_H
#define TAVOR_HDL_FLASH_H

#include "download/hdl_image.h"
#include "download/hdl_window.h"

#include <cstdint>

// Erases [start, start + length), rounded up to whole blocks; what lies beyond the 32-bit addresses is left
// out. Nothing to erase is a failure. Returns success.
bool da_format_flash(uint32_t start, uint32_t length);

// Writes one image of at least 2 bytes and stores the size that its file has from start to end. Returns
// success.
bool download_image(const ImageEntry* image, uint64_t* size);

// Has the agent compare an image's CRC with that of the flash. size: what was written; a file of another size
// fails. Returns whether the agent agreed.
bool check_image_crc(const ImageEntry* image, uint64_t size);

// Called in this module only; here for its tests.

// How many blocks the erase of [start, start + length) takes. Nothing lies beyond the 32-bit addresses.
uint32_t hdl_erase_plan_count(uint32_t start, uint32_t length);

// Fills as many blocks, all neither sent nor acknowledged. The last one may reach beyond the range.
void hdl_erase_plan_fill(uint32_t start, uint32_t length, FormatBlock* blocks);

// The rest completes the interface; the daemon does not call it.

// Writes count images in their order, up to the first failure. Returns success.
bool download_all_images(const ImageEntry* images, uint32_t count);

#endif
