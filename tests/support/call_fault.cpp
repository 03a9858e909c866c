#include "support/call_fault.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

CallFaults call_faults;

namespace {

bool strikes(int* calls_before) {
    return *calls_before == kEachCall || (*calls_before != kNoFault && (*calls_before)-- == 0);
}

bool read_fails(FILE* file, int* calls_before) {
    const bool fails = strikes(calls_before);
    if (fails) {
        fputc('x', file); // opened for reading only: marks it as failed
        errno = EIO;
    }
    return fails;
}

bool fread_fails(FILE* file) {
    if (call_faults.at_read) {
        call_faults.at_read();
    }
    return read_fails(file, &call_faults.fread);
}

} // namespace

extern "C" {

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
    if (strikes(&call_faults.malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

void* __real_calloc(size_t n, size_t size);
void* __wrap_calloc(size_t n, size_t size) {
    return strikes(&call_faults.calloc) ? nullptr : __real_calloc(n, size);
}

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text) {
    return strikes(&call_faults.strdup) ? nullptr : __real_strdup(text);
}

char* __real_realpath(const char* path, char* resolved);
char* __wrap_realpath(const char* path, char* resolved) {
    return strikes(&call_faults.realpath) ? nullptr : __real_realpath(path, resolved);
}

FILE* __real_fdopen(int fd, const char* mode);
FILE* __wrap_fdopen(int fd, const char* mode) {
    return strikes(&call_faults.fdopen) ? nullptr : __real_fdopen(fd, mode);
}

int __real_fclose(FILE* file);
int __wrap_fclose(FILE* file) {
    const int result = __real_fclose(file);
    return strikes(&call_faults.fclose) ? EOF : result;
}

int __real_fseeko(FILE* file, off_t offset, int whence);
int __wrap_fseeko(FILE* file, off_t offset, int whence) {
    return strikes(&call_faults.fseeko) ? -1 : __real_fseeko(file, offset, whence);
}

size_t __real_fread(void* data, size_t size, size_t n, FILE* file);
size_t __wrap_fread(void* data, size_t size, size_t n, FILE* file) {
    return fread_fails(file) ? 0 : __real_fread(data, size, n, file);
}

// What an optimised build calls.
size_t __real___fread_chk(void* data, size_t room, size_t size, size_t n, FILE* file);
size_t __wrap___fread_chk(void* data, size_t room, size_t size, size_t n, FILE* file) {
    return fread_fails(file) ? 0 : __real___fread_chk(data, room, size, n, file);
}

char* __real_fgets(char* line, int size, FILE* file);
char* __wrap_fgets(char* line, int size, FILE* file) {
    char* result = read_fails(file, &call_faults.fgets) ? nullptr : __real_fgets(line, size, file);
    if (call_faults.at_line && result != nullptr) {
        call_faults.at_line(result);
    }
    return result;
}

size_t __real_fwrite(const void* data, size_t size, size_t n, FILE* file);
size_t __wrap_fwrite(const void* data, size_t size, size_t n, FILE* file) {
    return strikes(&call_faults.fwrite) ? n / 2 : __real_fwrite(data, size, n, file);
}

int __real_remove(const char* path);
int __wrap_remove(const char* path) {
    errno = EPERM;
    return strikes(&call_faults.remove) ? -1 : __real_remove(path);
}
}
