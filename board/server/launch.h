// Programs on a board: their environment, and the board's directory.
#ifndef TAVOR_BOARD_LAUNCH_H
#define TAVOR_BOARD_LAUNCH_H

#include "server/options.h"

#include <string>
#include <vector>

// Replaces this process by the program, on the board of the directory. Returns only on failure: what went
// wrong.
std::string launch_replace(const std::string& directory, const std::vector<std::string>& program);

// The board's directory as an absolute path, made where it is missing, with the daemon's configuration in it.
// An existing configuration is kept; lines of the command line come first. Returns what went wrong, else
// empty.
std::string launch_prepare(const RunOptions& options, std::string* directory);

// Removes the queues that programs on this board left behind.
void launch_remove_queues(const std::string& directory);

#endif
