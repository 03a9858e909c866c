// A look at a device before the daemon's first start.
#ifndef TAVOR_CLIENT_CHECK_H
#define TAVOR_CLIENT_CHECK_H

#include "client/daemon_probe.h"
#include "client/finding.h"
#include "client/place.h"
#include "client/session.h"

#include <vector>

using Findings = std::vector<Finding>;

// Each of these adds what it finds. Nothing is changed; what would disturb a daemon that runs is left out.

// The settings' file: keys that there are none of, values that mean nothing. Pure but for the place.
void check_settings(Findings& findings, const Place& place);

void check_spi(Findings& findings, const Place& place, bool daemon_runs);
void check_power_line(Findings& findings, const Place& place, bool daemon_runs);

// Directories that the daemon writes to, and the assistance files and this host's clock against each other.
void check_directories(Findings& findings, const Place& place);
void check_clock(Findings& findings, const Place& place, int64_t now);

// The kernel's message queues.
void check_queues(Findings& findings);

// This device's identity at the assistance server, and the server's name.
void check_assistance(Findings& findings, const Place& place);

void check_daemon(Findings& findings, const DaemonProbe& daemon);
void check_unit(Findings& findings, const Place& place);

// What can't be used by this user is bad only for root: the daemon may have more rights.
Grade check_denied(int error);

// 'tavorctl check'. Returns its own exit status: 0 all good, 1 doubts, 2 bad.
int check_run(Session& session);

#endif
