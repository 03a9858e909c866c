// Replaced functions that take a path. The inline variants of the C library's headers would stand in the way
// of definitions of the same names.
#undef _FORTIFY_SOURCE

#include "interpose/backend.h"
#include "interpose/hook.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Open = int(const char*, int, ...);
using OpenAt = int(int, const char*, int, ...);
using Fopen = FILE*(const char*, const char*);
using PathCall = int(const char*);

// The mode that follows the flags where these make a file.
mode_t mode_after(int flags, va_list arguments) {
    const bool makes_file = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return makes_file ? va_arg(arguments, mode_t) : 0;
}

int open_device(const char* path, int flags) {
    pthread_testcancel();
    const HookCancelHold hold;
    return backend_open(path, flags);
}

int open_path(Open* function, const char* path, int flags, mode_t mode) {
    if (hook_fails("open")) {
        return -1;
    }
    return interpose_is_device(path) ? open_device(path, flags) : function(HookPath(path).text, flags, mode);
}

int open_path_at(OpenAt* function, int directory, const char* path, int flags, mode_t mode) {
    if (hook_fails("openat")) {
        return -1;
    }
    return interpose_is_device(path) ? open_device(path, flags)
                                     : function(directory, HookPath(path).text, flags, mode);
}

FILE* fopen_path(Fopen* function, const char* path, const char* mode) {
    return hook_fails("fopen") ? nullptr : function(HookPath(path).text, mode);
}

int call(PathCall* function, const char* name, const char* path) {
    return hook_fails(name) ? -1 : function(HookPath(path).text);
}

template <typename Stat>
int stat_path(int (*function)(const char*, Stat*), const char* name, const char* path, Stat* status) {
    return hook_fails(name) ? -1 : function(HookPath(path).text, status);
}

} // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return open_path(real<"open", Open>(), path, flags, mode);
}

int __open_2(const char* path, int flags) {
    return open_path(real<"open", Open>(), path, flags, 0);
}

int __open64_2(const char* path, int flags) {
    return open_path(real<"open64", Open>(), path, flags, 0);
}

int creat(const char* path, mode_t mode) {
    return open_path(real<"open", Open>(), path, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return open_path_at(real<"openat", OpenAt>(), directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    return fopen_path(real<"fopen", Fopen>(), path, mode);
}

int access(const char* path, int mode) noexcept {
    if (hook_fails("access")) {
        return -1;
    }
    if (interpose_is_device(path)) {
        const HookCancelHold hold;
        return backend_access(path);
    }
    return real<"access", int(const char*, int)>()(HookPath(path).text, mode);
}

int stat(const char* path, struct stat* status) noexcept {
    return stat_path(real<"stat", int(const char*, struct stat*)>(), "stat", path, status);
}

int lstat(const char* path, struct stat* status) noexcept {
    return stat_path(real<"lstat", int(const char*, struct stat*)>(), "lstat", path, status);
}

int unlink(const char* path) noexcept {
    return call(real<"unlink", PathCall>(), "unlink", path);
}

int remove(const char* path) noexcept {
    return call(real<"remove", PathCall>(), "remove", path);
}

int rmdir(const char* path) noexcept {
    return call(real<"rmdir", PathCall>(), "rmdir", path);
}

int mkdir(const char* path, mode_t mode) noexcept {
    return hook_fails("mkdir") ? -1 : real<"mkdir", int(const char*, mode_t)>()(HookPath(path).text, mode);
}

int chmod(const char* path, mode_t mode) noexcept {
    return hook_fails("chmod") ? -1 : real<"chmod", int(const char*, mode_t)>()(HookPath(path).text, mode);
}

int rename(const char* from, const char* to) noexcept {
    using Rename = int(const char*, const char*);
    return hook_fails("rename") ? -1 : real<"rename", Rename>()(HookPath(from).text, HookPath(to).text);
}

char* realpath(const char* path, char* resolved) noexcept {
    using RealPath = char*(const char*, char*);
    return hook_fails("realpath") ? nullptr : real<"realpath", RealPath>()(HookPath(path).text, resolved);
}

char* __realpath_chk(const char* path, char* resolved, size_t room) noexcept {
    using RealPathChk = char*(const char*, char*, size_t);
    return hook_fails("realpath")
               ? nullptr
               : real<"__realpath_chk", RealPathChk>()(HookPath(path).text, resolved, room);
}

#ifndef __USE_FILE_OFFSET64 // else the headers link the functions above by these names
int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return open_path(real<"open64", Open>(), path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_after(flags, arguments);
    va_end(arguments);
    return open_path_at(real<"openat64", OpenAt>(), directory, path, flags, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    return fopen_path(real<"fopen64", Fopen>(), path, mode);
}

int stat64(const char* path, struct stat64* status) noexcept {
    return stat_path(real<"stat64", int(const char*, struct stat64*)>(), "stat", path, status);
}

int lstat64(const char* path, struct stat64* status) noexcept {
    return stat_path(real<"lstat64", int(const char*, struct stat64*)>(), "lstat", path, status);
}
#endif

} // extern "C"
