// What the daemon's log says of assistance downloads: pure parsing, no I/O. Any line may be hostile.
#ifndef TAVOR_CLIENT_ASSIST_LOG_H
#define TAVOR_CLIENT_ASSIST_LOG_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A download that has ended.
struct AssistEnd {
    std::string name; // of the file
    bool verified = false;
    std::string cause;               // why not
    std::string advice;              // what to do
    std::optional<int64_t> retry_ms; // until it is tried again; none: with the next refresh
};

struct AssistLog {
    std::vector<AssistEnd> ended;
    bool waits = false;             // a request found a download or its retry waiting already
    std::optional<int64_t> next_ms; // until the next download, as last logged
    std::string cause;              // of the download under way
    std::string advice;
};

// Takes one line, without its line end.
void assist_log_line(AssistLog& log, std::string_view line);

#endif
