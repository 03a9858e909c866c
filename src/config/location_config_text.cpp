#include "config/location_config_text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

void cut_line_end(char* match) {
    char* const newline = strchr(match, '\n');
    if (newline == nullptr) {
        return;
    }
    if (newline > match && newline[-1] == '\r') {
        newline[-1] = '\0';
    } else {
        *newline = '\0';
    }
}

} // namespace

bool config_text_next_line(const ConfigText& text, size_t* at, char* line) {
    const char* from = text.bytes + *at;
    const size_t most = std::min(text.size - *at, kConfigLineSize - 1);
    const void* newline = memchr(from, '\n', most);
    const size_t length =
        newline == nullptr ? most : static_cast<size_t>(static_cast<const char*>(newline) - from) + 1;
    memcpy(line, from, length);
    line[length] = '\0';
    *at += length;
    return length > 0;
}

bool config_text_find(const ConfigText& text, const char* key, char* value) {
    if (text.bytes == nullptr) {
        return false;
    }
    char line[kConfigLineSize];
    for (size_t at = 0; config_text_next_line(text, &at, line);) {
        char* const match = strstr(line, key);
        if (match != nullptr) {
            cut_line_end(match);
            const char* const rest = match + strlen(key);
            memcpy(value, rest, strlen(rest) + 1);
            return true;
        }
    }
    return false;
}

int32_t config_text_number(const char* text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}
