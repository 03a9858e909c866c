#include "base/file_beside.h"

#include "base/descriptor_guard.h"
#include "base/regular_file.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

void file_beside_path(const char* path, char* dst, size_t size) {
    snprintf(dst, size, "%s.new", path);
}

int file_beside_sync(const char* beside) {
    const DescriptorGuard file(regular_file_open(beside, O_RDONLY));
    return file.fd < 0 ? -1 : fsync(file.fd);
}
