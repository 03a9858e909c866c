// Programs on a board: their environment, and the board's directory.
#ifndef TAVOR_BOARD_LAUNCH_H
#define TAVOR_BOARD_LAUNCH_H

#include "server/options.h"

#include <string>
#include <vector>

// Why no program can be put on a board: its library is not there, or has a path that can't be preloaded.
// Empty: nothing is wrong.
std::string launch_library_problem();

// Why the program can't be started, as far as that can be told without starting it: it is not where exec
// looks for it, or may not be run. Empty: nothing is wrong.
std::string launch_program_problem(const std::string& program);

// Replaces this process by the program, on the board of the directory. Returns only on failure: what went
// wrong.
std::string launch_replace(const std::string& directory, const std::vector<std::string>& program);

// Replaces this process by the program as it is. Returns only on failure: what went wrong.
std::string launch_replace_plainly(const std::vector<std::string>& program);

// launch_replace when a board runs there. Returns only on failure, which is printed: the exit code.
int launch_exec(const ExecOptions& options);

// The board's directory as an absolute path, made where it is missing. Returns what went wrong, else empty.
std::string launch_directory(const std::string& name, std::string* directory);

// Writes the daemon's configuration for this board and its assistance server (HOST:PORT, empty: none). An
// existing one is kept, but for settings that contradict the options: they come before it, where they win.
// Returns what went wrong, else empty.
std::string launch_configure(const RunOptions& options, const std::string& directory,
                             const std::string& assist);

// A setting of that configuration as the daemon finds it: the text after the key in the first line that holds
// it, else fallback.
std::string launch_setting(const std::string& directory, const std::string& key, const std::string& fallback);

// Removes the queues that programs on this board left behind.
void launch_remove_queues(const std::string& directory);

#endif
