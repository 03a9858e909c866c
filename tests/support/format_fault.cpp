#include "support/format_fault.h"

#include <cstdarg>
#include <cstdio>

namespace {

struct FormatFault {
    int calls_before = -1; // -1: none fails
} fault;

__attribute__((format(printf, 3, 0))) int format_unless_it_fails(char* dst, size_t size, const char* format,
                                                                 va_list arguments) {
    if (fault.calls_before >= 0 && fault.calls_before-- == 0) {
        return -1;
    }
    return std::vsnprintf(dst, size, format, arguments);
}

} // namespace

void format_fault_arm(int n) {
    fault.calls_before = n;
}

void format_fault_disarm() {
    fault.calls_before = -1;
}

extern "C" {

__attribute__((format(printf, 3, 4))) int __wrap_snprintf(char* dst, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = format_unless_it_fails(dst, size, format, arguments);
    va_end(arguments);
    return written;
}

// What a build with fortified library functions calls instead.
__attribute__((format(printf, 5, 6))) int __wrap___snprintf_chk(char* dst, size_t size, int /*flag*/,
                                                                size_t /*known*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = format_unless_it_fails(dst, size, format, arguments);
    va_end(arguments);
    return written;
}
}
