#include "base/log_output.h"

#include "base/cancel_hold.h"

#include <cstdio>
#include <unistd.h>

namespace {

// A write may take a part of a line, when the process is stopped or the system suspended in it: the rest is
// written after it. What can't be written is lost.
ssize_t write_held(void* /*unused*/, const char* data, size_t size) {
    const CancelHold hold;
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(STDOUT_FILENO, data + done, size - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
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
