#include "process/process.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

bool process_hold_standard_descriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The lowest that is free is opened.
        if (fcntl(descriptor, F_GETFD) == -1 && open("/dev/null", O_RDONLY) != descriptor) {
            dprintf(STDERR_FILENO, "a standard descriptor is closed, and no /dev/null takes its place: %s\n",
                    strerror(errno));
            return false;
        }
    }
    return true;
}

bool process_output_written(const char* program) {
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return true;
    }
    fprintf(stderr, "%s: can't write the output: %s\n", program, strerror(errno));
    return false;
}
