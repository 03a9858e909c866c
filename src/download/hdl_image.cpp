#include "download/hdl_image.h"

#include "base/format.h"
#include "base/free_block.h"
#include "download/crc32_calc.h"
#include "download/tool_file.h"
#include "download/tool_log.h"
#include "download/tool_text.h"

#include <algorithm>
#include <cstring>
#include <libgen.h>
#include <memory>

namespace {

constexpr size_t kLineSize = 256; // longer lines are split by the reading
constexpr uint32_t kBlockLines = 3;
constexpr char kBlockStart[] = "- rom:";
constexpr char kFileKey[] = "file:";
constexpr char kNameKey[] = "name:";
constexpr char kBeginKey[] = "begin_address:";
constexpr uint32_t kChunkSize = 1024;
constexpr uint32_t kWordSize = 4; // flash is written in whole words
constexpr uint8_t kErased = 0xFF;

using Text = std::unique_ptr<char, FreeBlock>;
using Images = std::unique_ptr<ImageEntry, FreeBlock>;

struct Line {
    char raw[kLineSize]; // without its line end
    char stripped[kLineSize];
};

// The list that is being read.
struct Reading {
    FILE* file;
    const char* directory;
    ImageEntry* images;
    uint32_t count;
    uint32_t index; // of the current entry
};

enum class Block { whole, cut_short, end_of_file, refused };

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool next_line(FILE* file, Line* line) {
    if (fgets(line->raw, sizeof line->raw, file) == nullptr) {
        return false;
    }
    line->raw[strcspn(line->raw, "\r\n")] = '\0';
    strip_spaces(line->raw, line->stripped);
    return true;
}

bool is_comment(const Line& line) {
    return line.stripped[0] == '#';
}

bool starts_block(const Line& line) {
    return strstr(line.raw, kBlockStart) != nullptr;
}

bool has_key(const Line& line, const char* key) {
    return strstr(line.stripped, key) != nullptr;
}

// The value after a key. Kept: the value starts at column strlen(key), even when the key itself stands later
// in the line. The line is long enough, because it holds the key.
const char* value_of(const Line& line, const char* key) {
    return line.stripped + strlen(key);
}

uint32_t count_images(FILE* file) {
    uint32_t count = 0;
    Line line = {};
    while (next_line(file, &line)) {
        if (!is_comment(line) && starts_block(line)) {
            ++count;
        }
    }
    return ferror(file) == 0 ? count : 0; // a part of the list is none
}

// The directory of the image list, absolute where the list's path can be resolved; null without memory.
Text image_directory(const char* list_path) {
    Text resolved(realpath(list_path, nullptr));
    if (resolved == nullptr) {
        resolved.reset(strdup(list_path));
    }
    return Text(resolved == nullptr ? nullptr : strdup(dirname(resolved.get())));
}

bool set_name(const Reading& reading, const char* file_name) {
    const Text with_slash(tool_concat(reading.directory, "/"));
    const Text path(with_slash == nullptr ? nullptr : tool_concat(with_slash.get(), file_name));
    if (path == nullptr) {
        tool_log_error("read_cfg_file concat ERROR\n\n");
        return false;
    }
    ImageEntry* entry = &reading.images[reading.index];
    if (format(entry->name, sizeof entry->name, "%s", path.get()) < 0) {
        tool_log_error("read_cfg_file snprintf ERROR\n\n");
    }
    tool_log_info("file name=%s\n\n", entry->name);
    return true;
}

// A number that does not fit 32 bits becomes the highest address, which no flash has.
void set_begin_address(const Reading& reading, const char* text) {
    const unsigned long long value = strtoull(text, nullptr, 0);
    const auto address = static_cast<uint32_t>(std::min<unsigned long long>(value, UINT32_MAX));
    reading.images[reading.index].begin_address = address;
    tool_log_info("begin_address:[%s]=> 0x%x\n\n", text, address);
}

bool take_line(const Reading& reading, const Line& line) {
    if (has_key(line, kFileKey)) {
        return set_name(reading, value_of(line, kFileKey));
    }
    if (has_key(line, kNameKey)) {
        return true;
    }
    if (has_key(line, kBeginKey)) {
        set_begin_address(reading, value_of(line, kBeginKey));
        return true;
    }
    tool_log_error("UnExpected line=%s\n", line.raw);
    return false;
}

Block read_block(const Reading& reading) {
    Line line = {};
    for (uint32_t taken = 0; taken < kBlockLines; ++taken) {
        if (!next_line(reading.file, &line)) {
            return Block::end_of_file;
        }
        if (is_comment(line)) {
            tool_log_info("skip [%s]:\n", line.stripped);
            return Block::cut_short;
        }
        // Kept: a block start inside a comment is not counted, but read as a block.
        if (reading.index == reading.count) {
            const auto index = static_cast<int>(reading.index);
            tool_log_error("Out of index(0~)=%d. Total image count= %d.\n", index, index);
            return Block::refused;
        }
        if (!take_line(reading, line)) {
            return Block::refused;
        }
    }
    return Block::whole;
}

bool read_blocks(Reading* reading) {
    Line line = {};
    while (next_line(reading->file, &line)) {
        if (!starts_block(line)) {
            continue;
        }
        switch (read_block(*reading)) {
        case Block::whole:
            ++reading->index;
            break;
        case Block::cut_short:
            break;
        case Block::end_of_file:
            return true;
        case Block::refused:
            return false;
        }
    }
    return true;
}

ImageEntry* read_counted(FILE* file, const char* path, uint32_t count) {
    tool_log_info("image count=%d\n", static_cast<int>(count));
    if (count == 0) {
        tool_log_error("Parsing config image count failed\n");
        return nullptr;
    }
    rewind(file);
    return read_cfg_file(file, path, count);
}

// Reads size bytes at the offset as they will stand in flash.
bool read_chunk(FILE* file, uint64_t offset, uint32_t size, bool last, uint8_t (&chunk)[kChunkSize]) {
    memset(chunk, kErased, sizeof chunk);
    if (fseeko(file, static_cast<off_t>(offset), SEEK_SET) != 0) {
        return false;
    }
    if (fread(chunk, 1, size, file) == size) {
        return true;
    }
    if (!last || ferror(file) != 0) {
        return false; // the file has become shorter, or can't be read
    }
    tool_log_info("Fill up 4-byte. ( %d )\n", 0);
    return true;
}

bool take_file(FILE* file, uint64_t file_size, uint32_t* running) {
    uint8_t chunk[kChunkSize];
    for (uint64_t offset = 0; offset < file_size; offset += kChunkSize) {
        const bool last = file_size - offset <= kChunkSize;
        const uint32_t rest = last ? static_cast<uint32_t>(file_size - offset) : kChunkSize;
        const uint32_t size = (rest + kWordSize - 1) / kWordSize * kWordSize;
        if (!read_chunk(file, offset, size, last, chunk)) {
            return false;
        }
        *running = crc32_update(*running, chunk, size);
    }
    return true;
}

} // namespace

void strip_spaces(const char* source, char* dst) {
    while (is_blank(*source)) {
        ++source;
    }
    for (; *source != '\0'; ++source) {
        if (*source != ' ') {
            *dst++ = *source;
        }
    }
    *dst = '\0';
}

ImageEntry* load_flash_download_cfg(const char* path, uint32_t* count) {
    FILE* file = tool_file_open(path);
    if (file == nullptr) {
        tool_log_error("open file Failed:%s\n", path);
        return nullptr;
    }
    *count = count_images(file);
    Images images(read_counted(file, path, *count));
    return tool_file_close(file, path) ? images.release() : nullptr;
}

ImageEntry* read_cfg_file(FILE* file, const char* path, uint32_t count) {
    Images images(static_cast<ImageEntry*>(calloc(count, sizeof(ImageEntry))));
    if (images == nullptr) {
        tool_log_error("read_cfg_file malloc cfg_list fail\n");
        return nullptr;
    }
    const Text directory = image_directory(path);
    if (directory == nullptr) {
        tool_log_error("read_cfg_file concat ERROR\n\n");
        return nullptr;
    }
    printf("The FW load directory is: %s\n", directory.get());
    Reading reading = {file, directory.get(), images.get(), count, 0};
    return read_blocks(&reading) && ferror(file) == 0 ? images.release() : nullptr;
}

uint32_t image_crc32(const char* path) {
    const uint64_t size = getFileSize(path);
    FILE* file = tool_file_open(path);
    if (file == nullptr) {
        tool_log_error("can not open %s\n", path == nullptr ? "" : path);
        return 0;
    }
    uint32_t running = kCrc32Start;
    const bool taken = take_file(file, size, &running);
    const bool closed = tool_file_close(file, path);
    return taken && closed ? ~running : 0;
}
