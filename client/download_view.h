// Progress of a firmware download as text: pure. All results are ASCII without control characters.
#ifndef TAVOR_CLIENT_DOWNLOAD_VIEW_H
#define TAVOR_CLIENT_DOWNLOAD_VIEW_H

#include "client/download_check.h"
#include "client/download_log.h"

#include <string>

// How long the download and its present step have lasted.
struct DownloadTimes {
    double all_s;
    double step_s;
};

// What a download that succeeded has done, as far as it is known.
struct DownloadSummary {
    uint32_t images = 0; // 0: not known
    std::optional<uint64_t> bytes;
    double all_s = 0;
    std::optional<double> write_s; // of which spent writing
    std::optional<FlashRange> flash;
};

// What is being done: "handshake", "write image 1 of 2 (a.bin)"; "writing firmware" while that is not known.
std::string download_view_step(const DownloadProgress& progress);

// The step with bar, share, rate and time left where they are known, and the time since the start; cut to the
// width in columns.
std::string download_view_bar(const DownloadProgress& progress, const DownloadTimes& times, size_t width);

// One line of JSON, type "progress", with its line end.
std::string download_view_json(const DownloadProgress& progress, const DownloadTimes& times);

// Why the download failed, as the log says, and what to do.
std::string download_view_failure(const DownloadProgress& progress);

// One line of JSON, type "failure": what the log says and what to do, with its line end.
std::string download_view_failure_json(const DownloadProgress& progress);

// "2 images, 61441 bytes in 42.1 s, written at 4.1 kB/s" with its line end, and as one line of JSON, type
// "summary".
std::string download_view_summary(const DownloadSummary& summary);
std::string download_view_summary_json(const DownloadSummary& summary);

#endif
