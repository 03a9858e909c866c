// Replaced functions on descriptors and streams.
#undef _FORTIFY_SOURCE

#include "interpose/backend.h"
#include "interpose/hook.h"

#include <cstdarg>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

ssize_t read_device(int fd, void* buffer, size_t length) {
    pthread_testcancel();
    const HookCancelHold hold;
    return backend_read(fd, buffer, length);
}

ssize_t write_device(int fd, const void* data, size_t length) {
    pthread_testcancel();
    const HookCancelHold hold;
    return backend_write(fd, data, length);
}

// No cancellation point.
off_t seek_device(int fd, off_t offset, int whence) {
    const HookCancelHold hold;
    return backend_seek(fd, offset, whence);
}

int close_device(int fd) {
    pthread_testcancel();
    const HookCancelHold hold;
    return backend_close(fd);
}

} // namespace

extern "C" {

int close(int fd) {
    if (backend_owns(fd)) {
        return close_device(fd);
    }
    const bool failed = hook_fails("close");
    const int error = errno;
    if (failed && error == EBADF) {
        return -1;
    }
    const int result = real<"close", int(int)>()(fd); // the descriptor is gone also when the call fails
    if (failed) {
        errno = error;
    }
    return failed ? -1 : result;
}

ssize_t read(int fd, void* buffer, size_t length) {
    using Read = ssize_t(int, void*, size_t);
    if (hook_fails("read")) {
        return -1;
    }
    return backend_owns(fd) ? read_device(fd, buffer, length) : real<"read", Read>()(fd, buffer, length);
}

ssize_t __read_chk(int fd, void* buffer, size_t length, size_t room) {
    using ReadChk = ssize_t(int, void*, size_t, size_t);
    if (hook_fails("read")) {
        return -1;
    }
    return backend_owns(fd) && length <= room ? read_device(fd, buffer, length)
                                              : real<"__read_chk", ReadChk>()(fd, buffer, length, room);
}

ssize_t write(int fd, const void* data, size_t length) {
    using Write = ssize_t(int, const void*, size_t);
    if (hook_fails("write")) {
        return -1;
    }
    return backend_owns(fd) ? write_device(fd, data, length) : real<"write", Write>()(fd, data, length);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (hook_fails("ioctl")) {
        return -1;
    }
    if (!backend_owns(fd)) {
        return real<"ioctl", int(int, unsigned long, ...)>()(fd, request, argument);
    }
    const HookCancelHold hold;
    return backend_ioctl(fd, request, argument);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    return backend_owns(fd) ? seek_device(fd, offset, whence)
                            : real<"lseek", off_t(int, off_t, int)>()(fd, offset, whence);
}

#ifndef __USE_FILE_OFFSET64 // else the headers link lseek by this name
off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
    using Seek = off64_t(int, off64_t, int);
    return backend_owns(fd) ? seek_device(fd, offset, whence) : real<"lseek64", Seek>()(fd, offset, whence);
}
#endif

size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
    using Fwrite = size_t(const void*, size_t, size_t, FILE*);
    return hook_fails("fwrite") ? 0 : real<"fwrite", Fwrite>()(data, size, count, file);
}

int fclose(FILE* file) {
    const bool failed = hook_fails("fclose");
    const int error = errno;
    const int result = real<"fclose", int(FILE*)>()(file); // the stream is gone also when the call fails
    if (failed) {
        errno = error;
    }
    return failed ? EOF : result;
}

} // extern "C"
