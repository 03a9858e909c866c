#include "support/format_fault.h"

#include "base/format.h"

#include <cstdarg>
#include <cstdio>

namespace {

struct FormatFault {
    int calls_before = -1; // -1: none fails
} fault;

} // namespace

void format_fault_arm(int n) {
    fault.calls_before = n;
}

void format_fault_disarm() {
    fault.calls_before = -1;
}

int format(char* dst, size_t size, const char* text, ...) {
    if (fault.calls_before >= 0 && fault.calls_before-- == 0) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, text);
    const int written = vsnprintf(dst, size, text, arguments);
    va_end(arguments);
    return written;
}
