// A check of a device before the daemon's first start.
#ifndef TAVOR_CLIENT_CHECK_H
#define TAVOR_CLIENT_CHECK_H

#include "client/check_rights.h"
#include "client/daemon_probe.h"
#include "client/finding.h"
#include "client/place.h"
#include "client/session.h"

#include <vector>

using Findings = std::vector<Finding>;

// Each of these adds what it finds. Nothing is changed; what would disturb a daemon that runs is left out.

// The settings file: keys that do not exist, values that mean nothing. Pure but for the place.
void check_settings(Findings& findings, const Place& place);

void check_spi(Findings& findings, const Place& place, bool daemon_runs);
void check_serial(Findings& findings, const Place& place, bool daemon_runs);
// A line that is exported for the check stays exported when a daemon has started meanwhile.
void check_power_line(Findings& findings, const Place& place, bool daemon_runs);

// Directories that the daemon writes to, and the assistance files and this host's clock against each other.
void check_directories(Findings& findings, const Place& place);
void check_clock(Findings& findings, const Place& place, int64_t now);

// The kernel's message queues.
void check_queues(Findings& findings);

// This device's identity at the assistance server, and the server's name.
void check_assistance(Findings& findings, const Place& place);
// Name or address in a text of the form "name", "name:port" or "[address]:port", with or without a path after
// it.
std::string check_host_name(const std::string& host);

void check_daemon(Findings& findings, const DaemonProbe& daemon);

// What systemd knows about the service, and one value of that. Empty where it is not asked: no systemd, or a
// daemon at another place.
std::string check_unit_properties(const Place& place);
std::string check_unit_property(const std::string& properties, const std::string& name);

void check_unit(Findings& findings, const Place& place, const std::string& properties);

// 'tavorctl check'. Returns its own exit status: 0 all good, 1 doubts, 2 bad.
int check_run(Session& session);

#endif
