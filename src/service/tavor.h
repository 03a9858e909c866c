// The client socket: requests in, responses out.
#ifndef TAVOR_TAVOR_H
#define TAVOR_TAVOR_H

#include <cstdint>

// Makes and binds the client socket; nobody is its client yet. Returns its descriptor or -1.
int32_t tavor_init();

// Waits for one request, makes its sender the client and enqueues the request for the service. Returns 0, or
// -1 after closing the socket when the receive failed.
int32_t tavor_receive();

// Sends one response to the client of the latest request: the ResponseCallback of the service. At most 512
// bytes of the payload are sent. Waits a bounded time for a client that does not read.
void tavor_send_response(uint32_t id, uint32_t value, const void* payload, uint32_t length);

// Runs the daemon: socket, service, then requests for ever. Returns -1 when the socket can't be set up or a
// receive fails.
int tavor_run();

#endif
