#include "base/regular_file.h"

#include "base/descriptor_guard.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

int regular_file_open(const char* path, int flags, mode_t mode) {
    DescriptorGuard file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    if (file.fd < 0) {
        return -1;
    }
    struct stat status = {};
    if (fstat(file.fd, &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = ENODEV;
        return -1;
    }
    return file.release();
}

FILE* regular_file_read(const char* path) {
    DescriptorGuard file(regular_file_open(path, O_RDONLY));
    FILE* const stream = file.fd < 0 ? nullptr : fdopen(file.fd, "r");
    if (stream != nullptr) {
        file.release();
    }
    return stream;
}
