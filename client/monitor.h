// The full-screen monitor.
#ifndef TAVOR_CLIENT_MONITOR_H
#define TAVOR_CLIENT_MONITOR_H

#include "client/session.h"

// Until it is left, or one frame. Returns an exit status.
int monitor_run(Session& session);

#endif
