#include "base/format.h"

#include <cstdarg>
#include <cstdio>

int format(char* dst, size_t size, const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const int written = vsnprintf(dst, size, text, arguments);
    va_end(arguments);
    return written;
}
