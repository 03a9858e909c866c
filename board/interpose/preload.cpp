// Start of the preload library: takes the board's directory from the environment.
#include "interpose/paths.h"
#include "interpose/remote.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

// A program that was meant for a board must not run on the host's own files and devices.
[[noreturn]] void refuse(const char* directory) {
    constexpr int kNotStarted = 127;
    std::fprintf(stderr,
                 "tavor_board: TAVOR_BOARD_DIR is \"%s\", it must name the directory of a running board\n",
                 directory == nullptr ? "" : directory);
    _exit(kNotStarted);
}

__attribute__((constructor)) void preload_start() {
    const char* directory = std::getenv("TAVOR_BOARD_DIR");
    if (directory == nullptr || *directory != '/' || !remote_set_server(directory)) {
        refuse(directory);
    }
    interpose_set_root(directory);
}

} // namespace
