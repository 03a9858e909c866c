// A download of an assistance file as text and as JSON: pure. All results are printable ASCII.
#ifndef TAVOR_CLIENT_ASSIST_VIEW_H
#define TAVOR_CLIENT_ASSIST_VIEW_H

#include <cstdint>
#include <optional>
#include <string>

struct DownloadedFile {
    std::string name;             // empty: not known
    std::optional<uint64_t> size; // bytes
    bool verified = false;        // its sum is the server's
    std::string cause;            // why it failed, empty: not known
    std::string advice;
    std::optional<int64_t> retry_ms; // until it is tried again
};

// "5 min", "17 h".
std::string print_duration(double seconds);

// "assistance data downloaded: NAME, 48384 bytes, verified", one line.
std::string print_assist_file(const DownloadedFile& file);

// Why it failed and what to do, without a line end.
std::string print_assist_failure(const DownloadedFile& file);

// One line of JSON, type "assist-file"; what is not known is null.
std::string print_assist_json(const DownloadedFile& file);

#endif
