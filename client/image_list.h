// The list of images of a firmware download, read as the daemon reads it: pure parsing, no I/O. Any text may
// be hostile.
#ifndef TAVOR_CLIENT_IMAGE_LIST_H
#define TAVOR_CLIENT_IMAGE_LIST_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct ListedImage {
    std::string path; // empty: the block names no file
    uint32_t begin = 0;
};

struct ImageList {
    std::vector<ListedImage> images; // a block that was cut short leaves an entry that is not whole
    std::string problem;             // why the daemon refuses it, empty when it does not
};

// Reads the content of a list whose images lie in the directory.
ImageList image_list_read(std::string_view content, const std::string& directory);

#endif
