// Files as a whole.
#ifndef TAVOR_BOARD_FILE_CONTENT_H
#define TAVOR_BOARD_FILE_CONTENT_H

#include <string>

// Reads a whole file. Returns what went wrong, also for a directory in place of the file, else empty.
std::string file_content(const std::string& path, std::string* content);

#endif
