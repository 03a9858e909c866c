// The chip's flash on disk: flash.bin holds its bytes, flash.state whether firmware starts from them. Both
// are written when the content first changes.
#ifndef TAVOR_BOARD_SERVER_FLASH_FILE_H
#define TAVOR_BOARD_SERVER_FLASH_FILE_H

#include "devices/board_devices.h"

#include <string>

// Takes the content from the directory; a flash without files keeps its own. Returns what is wrong, else
// empty.
std::string flash_file_load(Board& board, const std::string& directory);

// Writes what has changed since the last call. Returns what went wrong, else empty.
std::string flash_file_keep(Board& board, const std::string& directory);

#endif
