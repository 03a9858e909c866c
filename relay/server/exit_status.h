// What the process tells its caller.
#ifndef TAVOR_RELAY_EXIT_STATUS_H
#define TAVOR_RELAY_EXIT_STATUS_H

enum ExitStatus : int {
    kExitSuccess = 0, // ended by SIGTERM or SIGINT
    kExitFailed =
        1, // a socket, the files for TLS, or the program with MQTT can't be had; output can't be written
    kExitUsage = 2 // command line or configuration file is wrong, or the password's file can't be read
};

#endif
