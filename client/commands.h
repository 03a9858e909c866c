// What each command does.
#ifndef TAVOR_CLIENT_COMMANDS_H
#define TAVOR_CLIENT_COMMANDS_H

#include "client/options.h"

// Runs the command: results on standard output, what went wrong in one line on standard error. The descriptor
// is interrupt_open's. Returns an exit status.
int commands_run(const Options& options, int interrupt);

#endif
