// The clock of a board as the board server keeps it: in a file that the programs on the board map.
#ifndef TAVOR_BOARD_CLOCK_FILE_H
#define TAVOR_BOARD_CLOCK_FILE_H

#include "interpose/board_clock.h"

#include <cstdint>
#include <string>

struct ClockFile {
    BoardClock* clock = nullptr; // mapped while open
    std::string path;
};

// Makes the clock in the board's directory, in place of one that a killed board left; it is the host's.
// Returns what went wrong, else empty.
std::string clock_file_open(ClockFile& file, const std::string& directory);

// Takes the file away. Programs that mapped it keep their clock.
void clock_file_close(ClockFile& file);

// What the host's clocks say now.
HostTime clock_host_time();

// The board's UTC in nanoseconds since 1970.
int64_t clock_utc_ns(const BoardClock& clock);

// "2026-11-21T10:00:00Z", seconds rounded down.
std::string clock_text(int64_t utc_ns);

// Reads such a text; the Z may be missing. Years 1980 to 2200. Returns false when it is none.
bool clock_parse(const std::string& text, int64_t* utc_ns);

#endif
