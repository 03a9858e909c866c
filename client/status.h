// What can be said of the daemon without asking it; a relay in front of it is asked.
#ifndef TAVOR_CLIENT_STATUS_H
#define TAVOR_CLIENT_STATUS_H

#include "client/daemon_files.h"
#include "client/daemon_probe.h"
#include "client/log_past.h"
#include "client/relay_status.h"
#include "client/session.h"

#include <map>

struct Status {
    Place place;
    DaemonProbe daemon;
    std::optional<RelayStatus> relay; // none: no relay is asked for
    std::optional<bool> positioning;
    std::optional<bool> power;               // level of the power line
    int32_t power_line = kGpioNotConfigured; // that value: none is named
    std::optional<double> sentence_age_s;
    std::optional<Fix> fix;
    std::optional<double> fix_age_s;
    std::optional<SavedLocation> saved; // the location file
    std::optional<Outlet> outlet;
    std::optional<std::vector<AssistanceFile>> assistance;
    std::optional<bool> downloads;
    std::string download_phase;
    std::string log;                            // what was read, empty: nothing
    std::map<std::string, std::string> unknown; // why a value is not known, by its key in JSON
};

// Whether the chip talks: a sentence came within the last five seconds. None: not known.
std::optional<bool> status_talks(const Status& status);

// Prints the state. Returns an exit status.
int status_run(Session& session);

#endif
