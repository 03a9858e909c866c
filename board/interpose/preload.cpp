// Start of the preload library: takes the board's directory from the environment.
#include "interpose/paths.h"
#include "interpose/remote.h"

#include <cstdio>
#include <cstdlib>

__attribute__((constructor)) static void preload_start() {
    const char* directory = std::getenv("TAVOR_BOARD_DIR");
    if (directory == nullptr || !remote_set_server(directory)) {
        std::fprintf(
            stderr,
            "tavor_board: TAVOR_BOARD_DIR must name the directory of a running board, by a path of at most "
            "90 characters\n");
        return;
    }
    interpose_set_root(directory);
}
