#include "assist/xod_etag.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kLineSize = 128; // the NUL included; a longer line is read in pieces
constexpr char kKey[] = "ETag: ";
constexpr size_t kKeyLength = sizeof kKey - 1;

void copy_value(const char* key, char* out) {
    const char* value = key + std::min(strlen(key), kKeyLength + 1); // the quotation mark, too
    memset(out, 0, kXodDigestSize);
    memcpy(out, value, std::min(strcspn(value, "\r\n"), kXodDigestSize - 1));
}

} // namespace

bool xod_etag_read(FILE* header, char* out) {
    char line[kLineSize];
    while (fgets(line, sizeof line, header) != nullptr) {
        const char* key = strstr(line, kKey);
        if (key != nullptr) {
            copy_value(key, out);
            return true;
        }
    }
    return false;
}
