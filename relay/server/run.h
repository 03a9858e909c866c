// The relay from its start to its end.
#ifndef TAVOR_RELAY_RUN_H
#define TAVOR_RELAY_RUN_H

#include "server/options.h"

// Runs until SIGTERM or SIGINT. Returns an exit status; what is wrong stands on standard error.
int run(const Options& options);

#endif
