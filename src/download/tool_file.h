// Files that a firmware download reads: regular ones only, opened without waiting.
#ifndef TAVOR_TOOL_FILE_H
#define TAVOR_TOOL_FILE_H

#include <cstdint>
#include <cstdio>

// Bytes of the file; 0 when path is null, no regular file or can't be read.
uint64_t getFileSize(const char* path);

// Opens a regular file to read it. Returns null for a null path and when it can't be opened.
FILE* tool_file_open(const char* path);

// Closes a file. Returns success; a failure is logged with the path.
bool tool_file_close(FILE* file, const char* path);

// Whether the file still has the size that it had; a change is logged with the path.
bool tool_file_unchanged(const char* path, uint64_t size);

#endif
