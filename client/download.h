// Writing firmware: the request, its progress as the daemon's log tells it, and the answer.
#ifndef TAVOR_CLIENT_DOWNLOAD_H
#define TAVOR_CLIENT_DOWNLOAD_H

#include "client/session.h"

// Returns an exit status.
int download_run(Session& session);

#endif
