// A file that is written beside the one whose place it takes, so that a failure on the way, a full disk or a
// loss of power leaves the old one whole.
#ifndef TAVOR_FILE_BESIDE_H
#define TAVOR_FILE_BESIDE_H

#include <cstddef>

inline constexpr size_t kFileBesideExtra = 4; // characters by which its path is longer

// Writes the path of the file beside path, "PATH.new", to dst (size bytes). It is always the same one: what a
// process that was killed has left there is overwritten.
void file_beside_path(const char* path, char* dst, size_t size);

// Flushes the content of the file beside to the disk, once it is written and closed: only then may it take
// the other's place (rename). Returns 0, or -1 with errno set.
int file_beside_sync(const char* beside);

#endif
