// Files of the daemon, and those that it has open.
#ifndef TAVOR_CLIENT_DAEMON_FILES_H
#define TAVOR_CLIENT_DAEMON_FILES_H

#include "client/nmea.h"
#include "client/place.h"
#include "client/records.h"
#include "client/status_log.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct AssistanceFile {
    std::string name;
    std::string content;          // "GPS and GLONASS"
    std::optional<uint64_t> size; // bytes; none: there is no such file
    std::optional<int> hours;     // of prediction left, none when that can't be read
    std::optional<int> age_h;     // since the beginning of its predictions, negative before it
    timespec written = {};
};

// The assistance files: those that the daemon keeps, there or not, and others of its names that are there.
// None with errno set when their directory can't be read.
std::optional<std::vector<AssistanceFile>> daemon_files_assistance(const Place& place);

struct SavedLocation {
    std::string path;
    Position position;           // what it holds: absent values stand empty in the file
    std::optional<double> age_s; // of the file
};

// The location file; none with errno set when it can't be read.
std::optional<SavedLocation> daemon_files_location(const Place& place);

// Fix by the end of the outlet's log file, when the daemon has written there within the last half minute.
std::optional<Fix> daemon_files_fix(const Place& place);

// Level of the power line, none with the reason set.
std::optional<bool> daemon_files_power(const Place& place, std::string& why);

// The regular file that the process writes its log to; empty when we may not see that, or it is none.
std::string daemon_files_log(pid_t pid);

// The outlet that the process has open; none when we may not see that, or none is open.
std::optional<Outlet> daemon_files_outlet(const Place& place, pid_t pid);

#endif
