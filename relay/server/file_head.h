// Files that are read at the start.
#ifndef TAVOR_RELAY_FILE_HEAD_H
#define TAVOR_RELAY_FILE_HEAD_H

#include <cstddef>
#include <optional>
#include <string>

// The file's first bytes, at most this many. A pipe is refused, so nothing is waited for. Nothing with errno
// set when it can't be read.
std::optional<std::string> file_head(const std::string& path, size_t most);

#endif
