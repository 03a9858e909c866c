// The local clients' requests: the datagrams of tavor/protocol.h, for many.
//
// Each gets the results of its own requests. A client that requests start gets all sentences and positions
// until it requests stop or leaves; so does one that sends a request of no known type, with which a client of
// the daemon takes the output. One that sends a command gets what the chip answers to anybody, one that asks
// for assistance the results of downloads.
#ifndef TAVOR_RELAY_LOCAL_H
#define TAVOR_RELAY_LOCAL_H

#include <chrono>
#include <event2/event.h>

struct LocalSettings {
    int fd = -1;                            // the socket; closed with local_close
    std::chrono::milliseconds second{1000}; // length of a second of the limits; tests shorten it
};

// Call after hub_open, upstream_open and positioning_open.
void local_open(event_base* base, const LocalSettings& settings);
void local_close();

#endif
