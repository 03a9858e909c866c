// The metrics on HTTP: GET /metrics, nothing else, one request per connection.
//
// 16 connections at each socket: a further one takes the place of the oldest, so that those who connect and
// say nothing keep nobody out. A connection lasts 5 seconds at most.
#ifndef TAVOR_RELAY_METRICS_H
#define TAVOR_RELAY_METRICS_H

#include <chrono>
#include <event2/event.h>
#include <string>

struct MetricsSettings {
    std::string daemon;                     // path of its socket
    std::chrono::milliseconds second{1000}; // length of a second of the limits; tests shorten it
};

// Call after gnss_open.
void metrics_open(event_base* base, const MetricsSettings& settings);
void metrics_close();

// Serves the metrics at a socket that listens; it is closed with metrics_close.
void metrics_serve(int socket);

// Open connections.
size_t metrics_connections();

#endif
