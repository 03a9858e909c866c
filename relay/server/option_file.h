// The configuration file: a line "option=value" for each setting.
#ifndef TAVOR_RELAY_OPTION_FILE_H
#define TAVOR_RELAY_OPTION_FILE_H

#include "server/options.h"

#include <string>

// Reads the file, of at most 64 KiB, and takes its settings over. One that is not there is an error only if
// it must be. Returns what is wrong, nothing when all is well.
std::string option_file_read(const std::string& path, bool must_be, Options& options);

#endif
