// What the process tells its caller.
#ifndef TAVOR_CLIENT_EXIT_STATUS_H
#define TAVOR_CLIENT_EXIT_STATUS_H

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitNoDaemon = 3,
    kExitBusy = 4,
    kExitSilentChip = 5,
    kExitNoFix = 6,
    kExitSignal = 128 // plus the number of the signal that interrupted
};

struct ExitMeaning {
    ExitStatus status;
    const char* name; // in JSON
    const char* text; // in the help
};

// In the order of their numbers, from 0 on.
inline constexpr ExitMeaning kExitMeanings[] = {
    {kExitSuccess, "success", "success"},
    {kExitFailed, "failed", "the daemon answered failure, or the output could not be written"},
    {kExitUsage, "usage", "the command line is wrong"},
    {kExitNoDaemon, "no-daemon", "no daemon, no access to it, or it ended meanwhile"},
    {kExitBusy, "busy", "the daemon does not answer: it writes firmware or waits for the chip"},
    {kExitSilentChip, "silent-chip", "positioning is on and nothing comes from the chip"},
    {kExitNoFix, "no-fix", "the chip sends and has no fix, or none as young as asked for"},
};

#endif
