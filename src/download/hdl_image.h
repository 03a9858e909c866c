// The list of images that a firmware download writes, and what is asked of one image file.
#ifndef TAVOR_HDL_IMAGE_H
#define TAVOR_HDL_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct ImageEntry {
    char name[256];         // full path
    uint32_t begin_address; // in flash
};
static_assert(sizeof(ImageEntry) == 260);

// Copies source without leading blanks, tabs and line ends, and without any other blank. dst: as large as
// source.
void strip_spaces(const char* source, char* dst);

// Reads the image list at path. Returns it (the caller frees it) and its count, or null after logging why.
ImageEntry* load_flash_download_cfg(const char* path, uint32_t* count);

// Reads count images from the opened list at path, from where it stands. Returns the list (the caller frees
// it), or null after logging why.
ImageEntry* read_cfg_file(FILE* file, const char* path, uint32_t count);

// CRC-32 of the file, padded with 0xFF to a multiple of 4 bytes; 0 on any failure.
uint32_t image_crc32(const char* path);

#endif
