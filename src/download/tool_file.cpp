#include "download/tool_file.h"

#include "base/regular_file.h"
#include "download/tool_log.h"

#include <cerrno>
#include <sys/types.h>

namespace {

enum class Sight { kSame, kChanged, kNone };

// Errors of an open that say nothing about the file.
bool is_passing(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

Sight look_at(const char* path, uint64_t size) {
    FILE* file = tool_file_open(path);
    if (file == nullptr) {
        return is_passing(errno) ? Sight::kNone : Sight::kChanged;
    }
    const off_t found = fseeko(file, 0, SEEK_END) == 0 ? ftello(file) : -1;
    if (!tool_file_close(file, path) || found < 0) {
        return Sight::kNone;
    }
    return static_cast<uint64_t>(found) == size ? Sight::kSame : Sight::kChanged;
}

void log_change(const char* path) {
    tool_log_error("image file changed during the download: %s\n", path);
}

} // namespace

uint64_t getFileSize(const char* path) {
    FILE* file = tool_file_open(path);
    if (file == nullptr) {
        return 0;
    }
    const off_t size = fseeko(file, 0, SEEK_END) == 0 ? ftello(file) : 0;
    return tool_file_close(file, path) && size > 0 ? static_cast<uint64_t>(size) : 0;
}

FILE* tool_file_open(const char* path) {
    return path == nullptr ? nullptr : regular_file_read(path);
}

bool tool_file_close(FILE* file, const char* path) {
    if (fclose(file) == 0) {
        return true;
    }
    tool_log_error("The file(%s) could not closed.\n", path);
    return false;
}

bool tool_file_changed(const char* path, uint64_t size) {
    const bool changed = look_at(path, size) == Sight::kChanged;
    if (changed) {
        log_change(path);
    }
    return changed;
}

bool tool_file_unchanged(const char* path, uint64_t size) {
    const Sight sight = look_at(path, size);
    if (sight == Sight::kChanged) {
        log_change(path);
    } else if (sight == Sight::kNone) {
        tool_log_error("image file can't be looked at: %s\n", path);
    }
    return sight == Sight::kSame;
}
