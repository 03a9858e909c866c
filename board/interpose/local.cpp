#include "interpose/local.h"

#include "interpose/backend.h"
#include "interpose/paths.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kMostDescriptors = 4096;

using Devices = std::shared_ptr<const LocalDevices>;

// Made at first use and never taken down: calls come until the very end of the process.
struct LocalTables {
    Devices devices = std::make_shared<LocalDevices>();
    std::array<std::string, kMostDescriptors> paths; // by descriptor
};

// Usable before any constructor has run. Each close and read of the program asks whose the descriptor is: an
// atomic flag each, no lock.
struct LocalState {
    std::array<std::atomic<bool>, kMostDescriptors> owned;
    std::mutex lock; // guards the tables
    LocalTables* tables;
} state;

// The lock must be held.
LocalTables& tables() {
    if (state.tables == nullptr) {
        state.tables = new LocalTables;
    }
    return *state.tables;
}

// A node's functions are called without the lock: they may block, and may make calls themselves.
Devices devices_now() {
    const std::lock_guard hold(state.lock);
    return tables().devices;
}

std::string path_of(int fd) {
    const std::lock_guard hold(state.lock);
    return tables().paths[static_cast<size_t>(fd)];
}

int fail_with(int error) {
    errno = error;
    return -1;
}

// A descriptor number of this process that nothing else uses.
int reserve_descriptor() {
    const int fd = memfd_create("board", MFD_CLOEXEC);
    if (fd >= kMostDescriptors) {
        syscall(SYS_close, fd);
        return fail_with(EMFILE);
    }
    return fd;
}

void give_back(int fd) {
    const int error = errno;
    syscall(SYS_close, fd);
    errno = error;
}

// A test program's queues end with it.
__attribute__((destructor)) void remove_queues() {
    interpose_remove_queues();
}

} // namespace

void local_devices(LocalDevices devices) {
    auto shared = std::make_shared<const LocalDevices>(std::move(devices));
    const std::lock_guard hold(state.lock);
    tables().devices.swap(shared);
}

int backend_open(const char* path, int flags) {
    const Devices devices = devices_now();
    if (!devices->open) {
        return fail_with(ENOENT);
    }
    const int fd = reserve_descriptor();
    if (fd < 0) {
        return -1;
    }
    if (devices->open(path, flags) != 0) {
        give_back(fd);
        return -1;
    }
    const std::lock_guard hold(state.lock);
    tables().paths[static_cast<size_t>(fd)] = path;
    state.owned[static_cast<size_t>(fd)] = true;
    return fd;
}

int backend_close(int fd) {
    const std::string path = path_of(fd);
    const Devices devices = devices_now();
    state.owned[static_cast<size_t>(fd)] = false; // first: the number may be another's right after the close
    const auto result = static_cast<int>(syscall(SYS_close, fd));
    if (devices->close) {
        devices->close(path);
    }
    return result;
}

ssize_t backend_read(int fd, void* buffer, size_t length) {
    const Devices devices = devices_now();
    return devices->read ? devices->read(path_of(fd), buffer, length) : fail_with(EIO);
}

ssize_t backend_write(int fd, const void* data, size_t length) {
    const Devices devices = devices_now();
    return devices->write ? devices->write(path_of(fd), data, length) : fail_with(EIO);
}

int backend_ioctl(int fd, unsigned long request, void* argument) {
    const Devices devices = devices_now();
    return devices->ioctl ? devices->ioctl(path_of(fd), request, argument) : fail_with(EIO);
}

int backend_access(const char* path) {
    const Devices devices = devices_now();
    return devices->access ? devices->access(path) : fail_with(ENOENT);
}

off_t backend_seek(int fd, off_t offset, int whence) {
    const Devices devices = devices_now();
    return devices->seek ? devices->seek(path_of(fd), offset, whence) : fail_with(ESPIPE);
}

bool backend_owns(int fd) {
    return fd >= 0 && fd < kMostDescriptors &&
           state.owned[static_cast<size_t>(fd)].load(std::memory_order_relaxed);
}
