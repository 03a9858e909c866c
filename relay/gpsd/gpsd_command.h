// Requests of gpsd's protocol: pure parsing, no I/O. Every byte may be hostile.
#ifndef TAVOR_RELAY_GPSD_COMMAND_H
#define TAVOR_RELAY_GPSD_COMMAND_H

#include "gpsd/gpsd_report.h"

#include <optional>
#include <string>
#include <string_view>

// Bytes of a request that has no end.
inline constexpr size_t kGpsdCommandMax = size_t{8} * 1024;

struct GpsdCommand {
    std::string name;                    // with its question mark; empty: it is no request
    std::optional<std::string> argument; // after the equals sign
};

// Takes the next request off the input: it ends with ";" or a line end outside of strings. None while it has
// not ended. What stands between requests is dropped.
std::optional<GpsdCommand> gpsd_command_next(std::string& input);

// Changes the watch as the argument of WATCH asks. What is wrong with it, empty when nothing is; then nothing
// was changed.
std::string gpsd_command_watch(GpsdWatch& watch, const std::optional<std::string>& argument);

#endif
