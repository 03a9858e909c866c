// Tracks for other programs.
#ifndef TAVOR_CLIENT_EXPORT_H
#define TAVOR_CLIENT_EXPORT_H

#include "client/session.h"

// Of what the chip sends from now on. Returns an exit status.
int export_run(Session& session);

// Of a recording or standard input; needs no daemon. Returns an exit status.
int export_run_file(Session& session);

#endif
