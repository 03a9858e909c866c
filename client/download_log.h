// What the daemon's log says of a firmware download: pure parsing, no I/O. Any line may be hostile.
#ifndef TAVOR_CLIENT_DOWNLOAD_LOG_H
#define TAVOR_CLIENT_DOWNLOAD_LOG_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// An entry of the image list; the daemon logs path and address separately.
struct DownloadImage {
    std::string path;
    uint32_t begin = 0; // address in flash
    bool has_path = false;
    bool has_begin = false;
};

enum class DownloadPhase { kWaiting, kHandshake, kAgent, kErase, kWrite, kCheck, kFinish, kDone, kFailed };

struct DownloadProgress {
    bool begun = false;  // its "Download start" has come; lines before that and after its end are another's
    bool others = false; // lines of another download came before
    DownloadPhase phase = DownloadPhase::kWaiting;
    uint32_t images = 0;           // in the list, 0 while unknown
    uint32_t image = 0;            // being written or checked, from 1; 0 in other phases
    uint64_t done = 0;             // bytes of this phase, of this image while writing
    std::optional<uint64_t> total; // what done counts up to
    std::string error;             // the line that tells best what went wrong; empty while nothing has

    std::string device_error;   // the last failure of the SPI device itself since something succeeded
    uint32_t device_errors = 0; // how many there have been
    uint32_t again = 0;         // blocks of a second pass, 0 in the first

    // Kept from earlier lines to understand later ones.
    std::vector<DownloadImage> list;
    size_t list_index = 0; // entry that the list's next line is about
    uint64_t flash_begin = 0;
    uint64_t flash_size = 0;
    uint32_t agent_words = 0; // of the upload's announcement, its command included
};

// Bytes of a file, none when that can't be determined.
using FileSize = std::function<std::optional<uint64_t>(const std::string& path)>;

bool download_log_ended(const DownloadProgress& progress);

// Takes one line of the log, without its line end. False when it is no line of this download: of the first
// one that starts from now on.
bool download_log_line(DownloadProgress& progress, std::string_view line, const FileSize& size_of);

// The line of the log that tells why the download failed; empty while nothing has.
std::string_view download_log_cause(const DownloadProgress& progress);

// "write", as in the tool's output.
std::string_view download_phase_name(DownloadPhase phase);

// What to do about an error of the log, one line.
std::string_view download_advice(std::string_view error);

#endif
