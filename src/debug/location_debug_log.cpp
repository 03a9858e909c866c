#include "debug/location_debug_log.h"

#include "base/cancel_hold.h"
#include "base/descriptor_guard.h"
#include "base/regular_file.h"
#include "config/location_config.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace {

constexpr mode_t kLogFilePermissions = 0666;

// The lock keeps the file open while the receive thread writes to it. Nobody is cancelled under it.
struct DebugLogState {
    std::mutex lock;
    int32_t fd;
} state{.lock = {}, .fd = -1};

bool write_all(int32_t fd, const uint8_t* data, uint32_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, data, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        data += written;
        length -= static_cast<uint32_t>(written);
    }
    return true;
}

} // namespace

int32_t location_debug_log_open() {
    const std::lock_guard guard(state.lock);
    if (state.fd != -1) {
        puts("[LOCSERV] INF: [debug]location_debug_start, already open");
        return 0;
    }
    char path[kConfigTextSize];
    location_config_get_log_path(path);
    // The path may lie in /tmp, where anybody can make a link to a file of the daemon's.
    state.fd = regular_file_open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, kLogFilePermissions);
    if (state.fd == -1) {
        printf("[LOCSERV] ERR: [debug]location_debug_start fail, %s\n", path);
        return -1;
    }
    return 0;
}

void location_debug_log_write(const uint8_t* data, uint32_t length) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    if (state.fd != -1 && !write_all(state.fd, data, length)) {
        puts("[LOCSERV] ERR: [debug] write to file fail");
    }
}

// A file that fails to close stays open. Its descriptor is gone all the same, and the number may be another
// file's by now: what stays is a duplicate from before. Without one the file is forgotten in either case.
void location_debug_log_close() {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    if (state.fd == -1) {
        return;
    }
    DescriptorGuard spare(fcntl(state.fd, F_DUPFD_CLOEXEC, 0));
    state.fd = close(state.fd) == 0 ? -1 : spare.release();
}
