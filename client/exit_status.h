// What the process tells its caller. 'check' grades the device by 0, 1 and 2; so nothing but a grade is 2,
// and what goes wrong in the tool itself has the numbers of sysexits.h.
#ifndef TAVOR_CLIENT_EXIT_STATUS_H
#define TAVOR_CLIENT_EXIT_STATUS_H

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailed = 1,
    kExitBad = 2,
    kExitNoDaemon = 3,
    kExitBusy = 4,
    kExitSilentChip = 5,
    kExitNoFix = 6,
    kExitUsage = 64,
    kExitIo = 74,
    kExitSignal = 128 // plus the number of the signal that interrupted
};

struct ExitMeaning {
    ExitStatus status;
    const char* name; // in JSON
    const char* text; // in the help
};

// In the order of their numbers.
inline constexpr ExitMeaning kExitMeanings[] = {
    {kExitSuccess, "success", "success; of check: all good"},
    {kExitFailed, "failed", "the daemon answered failure, or its files are not as needed; of check: doubts"},
    {kExitBad, "bad", "of check only: something is bad"},
    {kExitNoDaemon, "no-daemon", "no daemon, no access to it, or it ended meanwhile"},
    {kExitBusy, "busy", "the daemon does not answer: it writes firmware or waits for the chip"},
    {kExitSilentChip, "silent-chip", "positioning is on and nothing comes from the chip"},
    {kExitNoFix, "no-fix", "the chip sends and has no fix, or none as young as asked for"},
    {kExitUsage, "usage", "the command line is wrong"},
    {kExitIo, "io", "this tool can't write its output, use the file that it was given, or get memory"},
};

#endif
