// Start of the preload library: takes the board's directory from the environment, and the board's clock from
// there.
#include "interpose/clock.h"
#include "interpose/paths.h"
#include "interpose/remote.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// A program that was meant for a board must not run on the host's own files and devices.
[[noreturn]] void refuse(const char* directory) {
    constexpr int kNotStarted = 127;
    fprintf(stderr, "tavor_board: TAVOR_BOARD_DIR is \"%s\", it must name the directory of a running board\n",
            directory == nullptr ? "" : directory);
    _exit(kNotStarted);
}

// The clock of the board in the directory; null when no board is there.
BoardClock* map_clock(const std::string& directory) {
    const std::string path = directory + "/" + kBoardClockName;
    const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDWR | O_CLOEXEC));
    struct stat status = {};
    void* memory = MAP_FAILED;
    if (fd >= 0 && fstat(fd, &status) == 0 && status.st_size == sizeof(BoardClock)) {
        memory = mmap(nullptr, sizeof(BoardClock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    if (fd >= 0) {
        syscall(SYS_close, fd);
    }
    return memory == MAP_FAILED ? nullptr : static_cast<BoardClock*>(memory);
}

__attribute__((constructor)) void preload_start() {
    const char* directory = getenv("TAVOR_BOARD_DIR");
    if (directory == nullptr || *directory != '/' || !remote_set_server(directory)) {
        refuse(directory);
    }
    remote_take_redirections();
    interpose_set_root(directory);
    interpose_use_clock(map_clock(directory));
    interpose_make_timers(true); // the board's clock may be changed at any time
}

} // namespace
