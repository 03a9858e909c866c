#include "base/log_output.h"

#include "base/cancel_hold.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

// A line that can't be written is lost.
ssize_t write_held(void* /*unused*/, const char* data, size_t size) {
    const CancelHold hold;
    return std::max<ssize_t>(write(STDOUT_FILENO, data, size), 0);
}

} // namespace

void log_output_init() {
    cookie_io_functions_t functions = {};
    functions.write = write_held;
    FILE* const stream = fopencookie(nullptr, "w", functions);
    if (stream != nullptr) { // without memory the plain stream serves
        fflush(stdout);
        stdout = stream;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
}
