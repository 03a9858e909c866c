// Files that a firmware download reads: regular ones only, opened without waiting.
#ifndef TAVOR_TOOL_FILE_H
#define TAVOR_TOOL_FILE_H

#include <cstdint>
#include <cstdio>

// Bytes of the file; 0 when path is null, is no regular file or can't be read.
uint64_t getFileSize(const char* path);

// Opens a regular file to read it. Returns null for a null path and when it can't be opened.
FILE* tool_file_open(const char* path);

// Closes a file. Returns success; a failure is logged with the path.
bool tool_file_close(FILE* file, const char* path);

// Whether the file is known to have another size than it had, or to be gone; that is logged with the path.
// One that can't be looked at for the moment (no descriptor or memory is free, a read error) has not changed.
bool tool_file_changed(const char* path, uint64_t size);

// Whether the file is known to have the size that it had; else it is logged why not.
bool tool_file_unchanged(const char* path, uint64_t size);

#endif
