#include "interpose/local.h"

#include "interpose/backend.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kMostDescriptors = 4096;

// Open is asked for every descriptor of the program: an atomic flag each, no lock.
struct LocalState {
    std::array<std::atomic<bool>, kMostDescriptors> owned;
    std::mutex lock; // guards what stands below
    LocalDevices* devices;
    std::array<std::string, kMostDescriptors>* paths;
} state;

// Made at first use and never taken down: calls come until the very end of the process.
std::string path_of(int fd) {
    const std::lock_guard hold(state.lock);
    return state.paths == nullptr ? std::string() : (*state.paths)[static_cast<size_t>(fd)];
}

LocalDevices devices_now() {
    const std::lock_guard hold(state.lock);
    return state.devices == nullptr ? LocalDevices{} : *state.devices;
}

int fail_with(int error) {
    errno = error;
    return -1;
}

// A descriptor number of this process that nothing else uses.
int reserve_descriptor(const char* path) {
    const int fd = memfd_create("board", MFD_CLOEXEC);
    if (fd < 0 || fd >= kMostDescriptors) {
        return fail_with(EMFILE);
    }
    const std::lock_guard hold(state.lock);
    if (state.paths == nullptr) {
        state.paths = new std::array<std::string, kMostDescriptors>;
    }
    (*state.paths)[static_cast<size_t>(fd)] = path;
    state.owned[static_cast<size_t>(fd)] = true;
    return fd;
}

} // namespace

void local_devices(LocalDevices devices) {
    const std::lock_guard hold(state.lock);
    if (state.devices == nullptr) {
        state.devices = new LocalDevices;
    }
    *state.devices = std::move(devices);
}

int backend_open(const char* path, int flags) {
    const LocalDevices devices = devices_now();
    if (!devices.open) {
        return fail_with(ENOENT);
    }
    return devices.open(path, flags) == 0 ? reserve_descriptor(path) : -1;
}

int backend_close(int fd) {
    const std::string path = path_of(fd);
    const LocalDevices devices = devices_now();
    state.owned[static_cast<size_t>(fd)] = false;
    const auto result = static_cast<int>(syscall(SYS_close, fd));
    if (devices.close) {
        devices.close(path);
    }
    return result;
}

ssize_t backend_read(int fd, void* buffer, size_t length) {
    const LocalDevices devices = devices_now();
    return devices.read ? devices.read(path_of(fd), buffer, length) : fail_with(EIO);
}

ssize_t backend_write(int fd, const void* data, size_t length) {
    const LocalDevices devices = devices_now();
    return devices.write ? devices.write(path_of(fd), data, length) : fail_with(EIO);
}

int backend_ioctl(int fd, unsigned long request, void* argument) {
    const LocalDevices devices = devices_now();
    return devices.ioctl ? devices.ioctl(path_of(fd), request, argument) : fail_with(EIO);
}

int backend_access(const char* path) {
    const LocalDevices devices = devices_now();
    return devices.access ? devices.access(path) : fail_with(ENOENT);
}

bool backend_owns(int fd) {
    return fd >= 0 && fd < kMostDescriptors &&
           state.owned[static_cast<size_t>(fd)].load(std::memory_order_relaxed);
}
