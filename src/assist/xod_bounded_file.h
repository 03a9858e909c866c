// A file that takes no more than so many bytes, whatever a server sends.
#ifndef TAVOR_XOD_BOUNDED_FILE_H
#define TAVOR_XOD_BOUNDED_FILE_H

#include <cstddef>
#include <cstdio>

// Opens a file for writing and empties it. A write that would make it longer than limit bytes fails with
// EFBIG. The stream is closed with fclose, which tells of failed writes as that of any file. Null and errno
// when the file can't be opened.
FILE* xod_bounded_file_open(const char* path, size_t limit);

#endif
