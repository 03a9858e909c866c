// Image list reader: any text is either refused with a log line or becomes a list that a model of the file
// agrees with in length, with names that end within their room. The client's reader, which looks at a list
// before a download, must see the same.
#include "client/image_list.h"
#include "base/free_block.h"
#include "download/hdl_image.h"
#include "fuzz.h"

#include <memory>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t kLineSize = 255;

char list_path[32];

// A file in memory, reached by its path as any other.
int memory_file() {
    static const int fd = memfd_create("flash_download.cfg", 0);
    return fd;
}

void fill(const uint8_t* data, size_t size) {
    require(ftruncate(memory_file(), 0) == 0, "can't empty the file");
    require(pwrite(memory_file(), data, size, 0) == static_cast<ssize_t>(size), "can't fill the file");
    snprintf(list_path, sizeof list_path, "/proc/self/fd/%d", memory_file());
}

// Blocks that begin outside a comment. A line ends at its first line end or NUL, or after 255 characters.
uint32_t count_blocks(const std::string& text) {
    uint32_t count = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t newline = text.find('\n', at);
        const size_t whole = newline == std::string::npos ? text.size() - at : newline + 1 - at;
        const size_t length = std::min(whole, kLineSize);
        std::string line = text.substr(at, length);
        line.resize(std::min(line.size(), line.find_first_of(std::string("\r\n\0", 3))));
        const size_t first = line.find_first_not_of(" \t");
        const bool comment = first != std::string::npos && line[first] == '#';
        count += !comment && line.find("- rom:") != std::string::npos ? 1 : 0;
        at += length;
    }
    return count;
}

void check_strip(const std::string& text) {
    const std::string line = text.c_str();
    std::string stripped(line.size() + 1, '?');
    strip_spaces(line.c_str(), stripped.data());
    require(stripped.find('\0') != std::string::npos, "stripped form has no end");
    stripped.resize(stripped.find('\0'));
    require(stripped.find(' ') == std::string::npos, "stripped form holds a blank");
    require(stripped.empty() || strchr("\t\r\n", stripped[0]) == nullptr, "stripped form begins blank");
}

void check_client(const std::string& text, const ImageEntry* images, uint32_t count) {
    const ImageList list = image_list_read(text, "/proc/self/fd");
    require(list.problem.empty() == (images != nullptr), "the client refuses something else");
    require(list.images.size() == count, "the client counts something else");
    for (uint32_t i = 0; images != nullptr && i < count; ++i) {
        require(list.images[i].path == images[i].name, "the client reads another name");
        require(list.images[i].begin == images[i].begin_address, "the client reads another address");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    silence_log();
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_strip(text);
    fill(data, size);

    uint32_t count = 0;
    const std::unique_ptr<ImageEntry, FreeBlock> images(load_flash_download_cfg(list_path, &count));
    require(count == count_blocks(text), "count differs");
    check_client(text, images.get(), count);
    if (images == nullptr) {
        return 0;
    }
    require(count > 0, "list without images");
    for (uint32_t i = 0; i < count; ++i) {
        const ImageEntry& entry = images.get()[i];
        require(memchr(entry.name, '\0', sizeof entry.name) != nullptr, "name runs on");
        require(entry.name[0] == '\0' || entry.name[0] == '/', "name is not absolute");
    }
    return 0;
}
