// Writing the chip's sentences into a file.
#ifndef TAVOR_CLIENT_RECORD_H
#define TAVOR_CLIENT_RECORD_H

#include "client/session.h"

// Returns an exit status.
int record_run(Session& session);

#endif
