// What stands behind the device nodes of an interposed program. Two variants are chosen at link time: local
// (in this process, for unit tests) and remote (a board server's socket, for whole programs).
#ifndef TAVOR_BOARD_BACKEND_H
#define TAVOR_BOARD_BACKEND_H

#include <cstddef>
#include <sys/types.h>

// Each behaves as the system call of its name: -1 and errno on failure.

// Opens a device node; the descriptor is one of this process, valid until backend_close.
int backend_open(const char* path, int flags);
int backend_close(int fd);
ssize_t backend_read(int fd, void* buffer, size_t length);
ssize_t backend_write(int fd, const void* data, size_t length);
int backend_ioctl(int fd, unsigned long request, void* argument);
off_t backend_seek(int fd, off_t offset, int whence);
int backend_access(const char* path);

// Whether the descriptor was opened by backend_open and is not closed yet.
bool backend_owns(int fd);

#endif
