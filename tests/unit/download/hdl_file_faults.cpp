#include "hdl_file_faults.h"

#include <cerrno>
#include <cstdio>

HdlFileFaults g_file_faults;

extern "C" {
int __real_fseeko(FILE* file, off_t offset, int whence);
size_t __real_fwrite(const void* data, size_t size, size_t count, FILE* file);
int __real_fclose(FILE* file);
int __real_remove(const char* path);

int __wrap_fseeko(FILE* file, off_t offset, int whence) {
    return g_file_faults.fseeko ? -1 : __real_fseeko(file, offset, whence);
}

size_t __wrap_fwrite(const void* data, size_t size, size_t count, FILE* file) {
    return g_file_faults.fwrite ? count / 2 : __real_fwrite(data, size, count, file);
}

int __wrap_fclose(FILE* file) {
    const int result = __real_fclose(file);
    return g_file_faults.fclose ? EOF : result;
}

int __wrap_remove(const char* path) {
    errno = EPERM;
    return g_file_faults.remove ? -1 : __real_remove(path);
}
}
