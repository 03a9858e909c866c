// The local variant of the backend: a test's own functions stand behind the device nodes.
#ifndef TAVOR_BOARD_LOCAL_H
#define TAVOR_BOARD_LOCAL_H

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>

// Called with the node's path. Each behaves as the system call of its name: -1 and errno on failure. What is
// not set fails with ENOENT (open, access) or EIO. close is called after the descriptor is gone.
struct LocalDevices {
    std::function<int(const std::string& path, int flags)>
        open; // 0 or -1: the descriptor is made by the backend
    std::function<void(const std::string& path)> close;
    std::function<ssize_t(const std::string& path, void* buffer, size_t length)> read;
    std::function<ssize_t(const std::string& path, const void* data, size_t length)> write;
    std::function<int(const std::string& path, unsigned long request, void* argument)> ioctl;
    std::function<int(const std::string& path)> access;
    std::function<off_t(const std::string& path, off_t offset, int whence)> seek = {}; // not set: ESPIPE
};

// Installs the devices of this process; call it while no interposed call runs.
void local_devices(LocalDevices devices);

#endif
