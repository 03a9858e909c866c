// What the daemon has logged before now.
#ifndef TAVOR_CLIENT_LOG_PAST_H
#define TAVOR_CLIENT_LOG_PAST_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct PastLine {
    std::string text;
    std::optional<double> at; // seconds since 1970, where the log has them
};

struct PastLog {
    std::vector<PastLine> lines; // the oldest first
    bool whole = false;          // nothing that counts is missing before them
    std::string why;             // why there are no lines, empty when there are
};

// The last 512 KiB of a file, which has no times.
PastLog log_past_file(const std::string& path);

// The service's journal since that time: its latest lines, and before them those of what changed its state.
// Takes 1.2 s at most.
PastLog log_past_journal(const std::optional<std::chrono::system_clock::time_point>& since);

// A line as the journal prints it with times; none for any other line.
std::optional<PastLine> log_past_journal_line(std::string_view line);

#endif
