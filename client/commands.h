// What each command does.
#ifndef TAVOR_CLIENT_COMMANDS_H
#define TAVOR_CLIENT_COMMANDS_H

#include "client/options.h"

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailed = 1,  // the daemon answered failure, or the output could not be written
    kExitUsage = 2,   // the command line is wrong
    kExitSilence = 3, // no daemon or no answer
    kExitSignal = 128 // plus the number of the signal that interrupted
};

// Runs the command: results on standard output, what went wrong in one line on standard error. The descriptor
// is interrupt_open's. Returns an exit status.
int commands_run(const Options& options, int interrupt);

#endif
