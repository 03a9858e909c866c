// Starting the assistance download and following its results.
#ifndef TAVOR_CLIENT_ASSIST_H
#define TAVOR_CLIENT_ASSIST_H

#include "client/session.h"

// Returns an exit status.
int assist_run(Session& session);

#endif
