// Whether a daemon runs and which one, found out without a datagram: any datagram makes its sender the
// receiver of all output.
#ifndef TAVOR_CLIENT_DAEMON_PROBE_H
#define TAVOR_CLIENT_DAEMON_PROBE_H

#include "client/place.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

struct DaemonProbe {
    std::optional<bool> running; // none: that can't be determined
    std::string running_why;     // why not
    bool reachable = false;      // a socket is bound at the path
    pid_t pid = -1;              // -1: not known
    std::string program;         // path of its executable, empty: not known
    std::string version;         // empty: not known
    std::string version_why;     // why pid, program or version are not known
    std::optional<std::chrono::system_clock::time_point> since;
};

// Half a second at most.
DaemonProbe daemon_probe(const Place& place);

// The process that holds a lock on this file according to the kernel's list (/proc/locks), if any.
std::optional<pid_t> daemon_probe_lock_holder(std::string_view locks, dev_t device, ino_t inode);

#endif
