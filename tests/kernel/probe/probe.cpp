#include "probe/probe.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr size_t kMostBytesShown = 8;

} // namespace

void tell(long result, const char* what, ...) {
    const int error = errno;
    va_list arguments;
    va_start(arguments, what);
    vprintf(what, arguments);
    va_end(arguments);
    if (result < 0) {
        printf(" = -1 %s\n", strerrorname_np(error));
    } else {
        printf(" = %ld\n", result);
    }
}

void tell_bytes(long result, const char* what, const void* bytes) {
    if (result < 0) {
        return tell(result, "%s", what);
    }
    printf("%s = %ld", what, result);
    const auto* byte = static_cast<const uint8_t*>(bytes);
    for (long i = 0; i < result && i < static_cast<long>(kMostBytesShown); ++i) {
        printf(" %02x", byte[i]);
    }
    putchar('\n');
}

void tell_number(long result, const char* what, uint32_t number) {
    if (result < 0) {
        return tell(result, "%s", what);
    }
    printf("%s = %ld 0x%x\n", what, result, number);
}

int must_open(const char* path, int flags) {
    const int fd = open(path, flags, kMode);
    if (fd < 0) {
        fprintf(stderr, "kernel-probe: can't open %s: %s\n", path, strerror(errno));
        exit(1);
    }
    return fd;
}

int main() {
    probe_gpio(); // powers the chip
    probe_spi();
    probe_i2c();
}
