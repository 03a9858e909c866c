#include "debug/location_debug_log.h"

#include "config/location_config.h"
#include "debug/location_debug_guard.h"

#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>
#include <utility>

namespace {

constexpr mode_t kLogFilePermissions = 0666;

// The lock keeps the file open while the receive thread writes to it. Nobody is cancelled under it.
struct DebugLogState {
    std::mutex lock;
    FILE* file;
} state;

// Not blocking: a path that names a pipe without a reader must not hold up the service.
FILE* open_for_appending(const char* path) {
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, kLogFilePermissions);
    if (fd < 0) {
        return nullptr;
    }
    FILE* const file = fdopen(fd, "ab");
    if (file == nullptr) {
        close(fd);
        return nullptr;
    }
    std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

} // namespace

int32_t location_debug_log_open() {
    const std::lock_guard guard(state.lock);
    if (state.file != nullptr) {
        std::puts("[LOCSERV] INF: [debug]location_debug_start, already open");
        return 0;
    }
    char path[kConfigTextSize];
    location_config_get_log_path(path);
    state.file = open_for_appending(path);
    if (state.file == nullptr) {
        std::printf("[LOCSERV] ERR: [debug]location_debug_start fail, %s\n", path);
        return -1;
    }
    return 0;
}

void location_debug_log_write(const uint8_t* data, uint32_t length) {
    const DebugCancelHold hold;
    const std::lock_guard guard(state.lock);
    if (state.file != nullptr && std::fwrite(data, 1, length, state.file) < length) {
        std::puts("[LOCSERV] ERR: [debug] write to file fail");
    }
}

// Nothing is buffered, so nothing is lost when fclose fails; the stream is gone then too and can't be kept.
void location_debug_log_close() {
    const DebugCancelHold hold;
    const std::lock_guard guard(state.lock);
    FILE* const file = std::exchange(state.file, nullptr);
    if (file != nullptr) {
        std::fclose(file);
    }
}
