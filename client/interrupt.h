// The signals that end the tool, as a descriptor to poll, so that every wait can end cleanly.
#ifndef TAVOR_CLIENT_INTERRUPT_H
#define TAVOR_CLIENT_INTERRUPT_H

// Takes SIGINT, SIGTERM and SIGHUP over, save those that the parent had ignored. Returns a descriptor that is
// readable while one is pending, -1 on failure.
int interrupt_open();

// Takes one pending signal off the descriptor. Returns its number, SIGINT when none can be read.
int interrupt_take(int descriptor);

// The signal that is pending, 0 for none. Safe in a signal handler.
int interrupt_pending();

// Ends the process by the signal, so that a calling shell sees why it ended. Safe in a signal handler.
[[noreturn]] void interrupt_end(int signal);

#endif
