// The command line.
#ifndef TAVOR_CLIENT_OPTIONS_H
#define TAVOR_CLIENT_OPTIONS_H

#include "tavor/protocol.h"

#include <cstdint>
#include <optional>
#include <string>

enum class Command {
    kStart,
    kStop,
    kWatch,
    kPosition,
    kSave,
    kSend,
    kDebug,
    kAssist,
    kDownload,
    kStatus,
    kRecord,
    kExport,
    kMonitor,
    kCheck
};

// Of an exported track.
enum class TrackFormat { kGpx, kKml, kGeoJson, kCsv };

// Where a flash lies in the chip's addresses.
struct FlashRange {
    uint64_t begin = 0;
    uint64_t size = 0; // bytes
};

struct Options {
    Command command = Command::kStart;
    std::string socket = TAVOR_SOCKET_PATH;
    std::optional<double> timeout_s; // none: the command's own default; 0: no limit
    bool json = false;
    bool raw = false;                 // watch: NMEA sentences only
    bool stop = false;                // watch, record, export: stop positioning at the end
    int64_t count = 0;                // watch: lines of output, 0 for no limit
    std::optional<double> duration_s; // watch, record, export: above 0; none: no limit
    std::optional<double> wait_s;    // start: none: not at all; send, assist: none: the command's own default
    std::string start_wait;          // start: the text of wait_s; empty: not given
    bool fix = false;                // start: wait for a fix
    std::optional<double> max_age_s; // position: none: any
    bool once = false;               // assist: end after the first full cycle; monitor: one frame
    std::string body;                // send
    std::string outlet;              // debug: off, file, serial or tcp
    std::string log;        // status, assist, download: file with the daemon's log; empty: the journal
    bool check = false;     // download: look at the files only
    bool force = false;     // download: don't look at them; record: replace the file
    std::string flash_text; // download: the text of flash
    std::optional<FlashRange> flash;        // download: none: its bounds are not known
    std::string file;                       // record: "-" for standard output; export: empty for live
    bool append = false;                    // record
    bool stamps = false;                    // record: say when sentences came
    TrackFormat format = TrackFormat::kGpx; // export
    std::optional<double> gap_s;            // export: none: the usual one
    std::optional<double> every_s;          // export: none: every point
    double every_m = 0;                     // export
};

// Reads the command line; the environment variable TAVOR_SOCKET replaces the default of --socket. Prints help
// and version on standard output, what is wrong in one line on standard error. Returns the exit status when
// the process should end now, none when a command is to run.
std::optional<int> options_parse(int argc, const char* const* argv, Options& options);

// What is wrong with the body of a command for the chip, empty when nothing is.
std::string options_check_body(const std::string& body);

#endif
