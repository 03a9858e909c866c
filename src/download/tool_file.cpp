#include "download/tool_file.h"

#include "base/regular_file.h"
#include "download/tool_log.h"

#include <sys/types.h>

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

bool tool_file_unchanged(const char* path, uint64_t size) {
    if (getFileSize(path) == size) {
        return true;
    }
    tool_log_error("image file changed during the download: %s\n", path);
    return false;
}
