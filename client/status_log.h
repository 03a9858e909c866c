// What the daemon's log says of its state: pure parsing, no I/O. Any line may be hostile.
#ifndef TAVOR_CLIENT_STATUS_LOG_H
#define TAVOR_CLIENT_STATUS_LOG_H

#include "client/download_log.h"

#include <cstdint>
#include <optional>
#include <string_view>

enum class Outlet { kOff, kFile, kSerial, kTcp };

// "file", as on the command line.
std::string_view outlet_name(Outlet outlet);

struct LogState {
    std::optional<bool> positioning; // none: no line has said
    std::optional<Outlet> outlet;    // chosen; it is open while positioning is on
    std::optional<double> sentence;  // when the latest one came, seconds since 1970
    uint64_t sentences = 0;
    bool banner_due = false; // the daemon's own line after a start is handled as a sentence is
    DownloadProgress download;
};

// Whether a download has begun and not ended.
bool status_log_downloads(const LogState& state);

// What a daemon does that has just started.
void status_log_begin(LogState& state);

// Takes one line, without its line end; at: when it was written, where that is known.
void status_log_line(LogState& state, std::string_view line, std::optional<double> at);

#endif
