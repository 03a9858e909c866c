// The C library functions that an interposed program calls in our place. Everything that concerns neither a
// device node nor a fixed path nor a queue key goes on to the real function.
#include "interpose/backend.h"
#include "interpose/fail.h"
#include "interpose/paths.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

template <typename Function> Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Whether this call is to fail; errno is set then.
bool fails(const char* function) {
    const int error = interpose_fail_now(function);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

bool maps(const char* path) {
    return std::strncmp(path, "/etc/", 5) == 0 || std::strncmp(path, "/tmp/", 5) == 0;
}

mode_t open_mode(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

int open_any(const char* name, const char* path, int flags, mode_t mode) {
    using Open = int(const char*, int, ...);
    if (fails("open")) {
        return -1;
    }
    if (interpose_is_device(path)) {
        return backend_open(path, flags);
    }
    return next<Open>(name)(maps(path) ? interpose_map(path).c_str() : path, flags, mode);
}

FILE* fopen_any(const char* name, const char* path, const char* mode) {
    using Fopen = FILE*(const char*, const char*);
    if (fails("fopen")) {
        return nullptr;
    }
    return next<Fopen>(name)(maps(path) ? interpose_map(path).c_str() : path, mode);
}

// The address with its path mapped; false when the mapped path has no room.
bool map_address(const sockaddr* address, socklen_t size, sockaddr_un* mapped) {
    const auto* unix_address = reinterpret_cast<const sockaddr_un*>(address);
    const size_t room = size > offsetof(sockaddr_un, sun_path) ? size - offsetof(sockaddr_un, sun_path) : 0;
    const std::string path(unix_address->sun_path, strnlen(unix_address->sun_path, room));
    const std::string target = interpose_map(path.c_str());
    *mapped = {};
    mapped->sun_family = AF_UNIX;
    if (target.size() >= sizeof mapped->sun_path) {
        std::fprintf(stderr,
                     "board: socket path %s is longer than %zu characters: choose a shorter directory\n",
                     target.c_str(), sizeof mapped->sun_path - 1);
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(mapped->sun_path, target.c_str(), target.size());
    return true;
}

bool is_mapped_address(const sockaddr* address, socklen_t size) {
    const auto* unix_address = reinterpret_cast<const sockaddr_un*>(address);
    return address != nullptr && size > offsetof(sockaddr_un, sun_path) + 5 &&
           address->sa_family == AF_UNIX && maps(unix_address->sun_path);
}

} // namespace

// The real functions have no exception specification that a caller could rely on; glibc's headers add one in
// C++.
extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = open_mode(flags, arguments);
    va_end(arguments);
    return open_any("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = open_mode(flags, arguments);
    va_end(arguments);
    return open_any("open64", path, flags, mode);
}

int __open_2(const char* path, int flags) {
    return open_any("open", path, flags, 0);
}

int __open64_2(const char* path, int flags) {
    return open_any("open64", path, flags, 0);
}

int close(int fd) {
    using Close = int(int);
    if (backend_owns(fd)) {
        return backend_close(fd);
    }
    return fails("close") ? -1 : next<Close>("close")(fd);
}

ssize_t read(int fd, void* buffer, size_t length) {
    using Read = ssize_t(int, void*, size_t);
    if (fails("read")) {
        return -1;
    }
    return backend_owns(fd) ? backend_read(fd, buffer, length) : next<Read>("read")(fd, buffer, length);
}

ssize_t __read_chk(int fd, void* buffer, size_t length, size_t room) {
    using ReadChk = ssize_t(int, void*, size_t, size_t);
    if (fails("read")) {
        return -1;
    }
    return backend_owns(fd) && length <= room ? backend_read(fd, buffer, length)
                                              : next<ReadChk>("__read_chk")(fd, buffer, length, room);
}

ssize_t write(int fd, const void* data, size_t length) {
    using Write = ssize_t(int, const void*, size_t);
    if (fails("write")) {
        return -1;
    }
    return backend_owns(fd) ? backend_write(fd, data, length) : next<Write>("write")(fd, data, length);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    using Ioctl = int(int, unsigned long, ...);
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (fails("ioctl")) {
        return -1;
    }
    return backend_owns(fd) ? backend_ioctl(fd, request, argument)
                            : next<Ioctl>("ioctl")(fd, request, argument);
}

int access(const char* path, int mode) noexcept {
    using Access = int(const char*, int);
    if (fails("access")) {
        return -1;
    }
    if (interpose_is_device(path)) {
        return backend_access(path);
    }
    return next<Access>("access")(maps(path) ? interpose_map(path).c_str() : path, mode);
}

int unlink(const char* path) noexcept {
    using Unlink = int(const char*);
    if (fails("unlink")) {
        return -1;
    }
    return next<Unlink>("unlink")(maps(path) ? interpose_map(path).c_str() : path);
}

FILE* fopen(const char* path, const char* mode) {
    return fopen_any("fopen", path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    return fopen_any("fopen64", path, mode);
}

size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
    using Fwrite = size_t(const void*, size_t, size_t, FILE*);
    return fails("fwrite") ? 0 : next<Fwrite>("fwrite")(data, size, count, file);
}

int fclose(FILE* file) {
    using Fclose = int(FILE*);
    const bool failed = fails("fclose");
    const int error = errno;
    const int result = next<Fclose>("fclose")(file); // the stream is gone also when the call fails
    if (failed) {
        errno = error;
    }
    return failed ? EOF : result;
}

int socket(int domain, int type, int protocol) noexcept {
    using Socket = int(int, int, int);
    return fails("socket") ? -1 : next<Socket>("socket")(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
    using Bind = int(int, const sockaddr*, socklen_t);
    sockaddr_un mapped;
    if (fails("bind")) {
        return -1;
    }
    if (!is_mapped_address(address, size)) {
        return next<Bind>("bind")(fd, address, size);
    }
    return map_address(address, size, &mapped)
               ? next<Bind>("bind")(fd, reinterpret_cast<const sockaddr*>(&mapped), sizeof mapped)
               : -1;
}

ssize_t sendto(int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t size) {
    using Sendto = ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t);
    sockaddr_un mapped;
    if (!is_mapped_address(address, size)) {
        return next<Sendto>("sendto")(fd, data, length, flags, address, size);
    }
    return map_address(address, size, &mapped)
               ? next<Sendto>("sendto")(fd, data, length, flags, reinterpret_cast<const sockaddr*>(&mapped),
                                        sizeof mapped)
               : -1;
}

int listen(int fd, int backlog) noexcept {
    using Listen = int(int, int);
    return fails("listen") ? -1 : next<Listen>("listen")(fd, backlog);
}

int accept(int fd, sockaddr* address, socklen_t* size) {
    using Accept = int(int, sockaddr*, socklen_t*);
    return fails("accept") ? -1 : next<Accept>("accept")(fd, address, size);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    using Setsockopt = int(int, int, int, const void*, socklen_t);
    return fails("setsockopt") ? -1 : next<Setsockopt>("setsockopt")(fd, level, option, value, size);
}

int msgget(key_t key, int flags) noexcept {
    using Msgget = int(key_t, int);
    return fails("msgget") ? -1 : next<Msgget>("msgget")(interpose_map_key(key), flags);
}

int msgsnd(int queue, const void* message, size_t size, int flags) {
    using Msgsnd = int(int, const void*, size_t, int);
    return fails("msgsnd") ? -1 : next<Msgsnd>("msgsnd")(queue, message, size, flags);
}

int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
    using TimerCreate = int(clockid_t, sigevent*, timer_t*);
    return fails("timer_create") ? -1 : next<TimerCreate>("timer_create")(clock, event, timer);
}

int sem_init(sem_t* semaphore, int shared, unsigned value) noexcept {
    using SemInit = int(sem_t*, int, unsigned);
    return fails("sem_init") ? -1 : next<SemInit>("sem_init")(semaphore, shared, value);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    using MutexInit = int(pthread_mutex_t*, const pthread_mutexattr_t*);
    return fails("pthread_mutex_init") ? errno : next<MutexInit>("pthread_mutex_init")(mutex, attributes);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    return fails("pthread_create") ? errno
                                   : next<Create>("pthread_create")(thread, attributes, body, argument);
}

} // extern "C"
