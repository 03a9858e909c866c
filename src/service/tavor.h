// The client socket: requests in, responses out.
#ifndef TAVOR_TAVOR_H
#define TAVOR_TAVOR_H

#include <cstdint>

// Makes and binds the client socket; nobody is its client yet. Returns its descriptor or -1.
int32_t tavor_init();

// Runs the daemon: socket, service, then requests for ever. Returns the exit status: 1 when another daemon
// runs, -1 when it can't be determined whether one does, both with a line on standard error; -1 when the
// socket or the service can't be set up or a receive fails.
int tavor_run();

// Called in this module only; here for its tests.

// Waits for one request, makes its sender the client and enqueues the request for the service; one that finds
// no room there is answered with failure. Returns 0, or -1 after closing the socket when the receive failed.
int32_t tavor_receive();

#endif
