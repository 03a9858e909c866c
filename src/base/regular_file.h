// Files of the device's file system, opened so that nothing that stands in their place can hold up the
// daemon.
#ifndef TAVOR_REGULAR_FILE_H
#define TAVOR_REGULAR_FILE_H

#include <cstdio>
#include <sys/types.h>

// As open(2), but only a regular file is opened, and without waiting: opening a FIFO blocks until somebody
// opens its other end, and a device may never end. mode is used with O_CREAT only. Returns the descriptor, or
// -1 with errno set (ENODEV for a file of another kind).
int regular_file_open(const char* path, int flags, mode_t mode = 0);

// The same as a stream that reads. Returns null with errno set on failure.
FILE* regular_file_read(const char* path);

#endif
