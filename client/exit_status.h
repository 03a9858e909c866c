// What the process tells its caller.
#ifndef TAVOR_CLIENT_EXIT_STATUS_H
#define TAVOR_CLIENT_EXIT_STATUS_H

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailed = 1,  // the daemon answered failure, or the output could not be written
    kExitUsage = 2,   // the command line is wrong
    kExitSilence = 3, // no daemon or no answer
    kExitSignal = 128 // plus the number of the signal that interrupted
};

#endif
