// Records as text for people and as JSON for programs. All results but print_raw's are pure ASCII without
// control characters but their own line ends, whatever the chip sent: no escape sequence of it reaches a
// terminal.
#ifndef TAVOR_CLIENT_PRINT_H
#define TAVOR_CLIENT_PRINT_H

#include "client/exit_status.h"
#include "client/nmea.h"
#include "client/records.h"

#include <string>
#include <string_view>

// What the chip's sentences add to a position block.
struct PositionDetails {
    Fix fix;
    std::optional<Utc> time;     // of the position
    std::optional<double> age_s; // by the clock of this host
};

// The text with every byte outside printable ASCII written as \xNN.
std::string print_safe(std::string_view text);

// A number of seconds without useless digits: "5", "0.25".
std::string print_seconds(double seconds);

// The quality of a fix in words: "autonomous".
std::string print_quality(const std::optional<int>& quality);

// One line for people, with its line end.
std::string print_line(const Record& record);

// What an answer says, one line.
std::string print_result(const Record& record);

// A sentence of the chip alone, one line.
std::string print_sentence(const Record& record);

// One line of JSON, an object with the key "type", with its line end. The details are a position's.
std::string print_json(const Record& record, const PositionDetails& details = {});

// A position as labelled lines with units; what is not known says so.
std::string print_position(const Position& position, const PositionDetails& details);

// A position as one line of JSON; what is not known is null.
std::string print_position_json(const Position& position, const PositionDetails& details);

// That the chip sends, or has a fix.
std::string print_ready(bool has_fix);
std::string print_ready_json(bool has_fix);

// What a recording holds as one line of JSON, type "recording".
struct RecordingCounts {
    const std::string& file;
    uint64_t sentences;
    uint64_t bytes;
    double seconds;
};
std::string print_recording_json(const RecordingCounts& counts);

// What went wrong as one line of JSON, type "error".
std::string print_error_json(ExitStatus status, const std::string& message);

// An NMEA sentence for other programs: its bytes as they are; ends with a line end.
std::string print_raw(const Record& record);

#endif
