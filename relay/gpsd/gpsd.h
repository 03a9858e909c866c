// gpsd's protocol on TCP, read only: nothing that a client sends goes to the daemon or the chip.
#ifndef TAVOR_RELAY_GPSD_H
#define TAVOR_RELAY_GPSD_H

#include <chrono>
#include <cstddef>
#include <event2/event.h>
#include <string>

struct GpsdSettings {
    std::string listen;                     // [ADDRESS:]PORT; without an address: loopback
    std::chrono::milliseconds second{1000}; // length of a second of the limits; tests shorten it
    size_t clients_max = 2000;              // connections at a time
};

// After gnss_open and positioning_open. False with errno set when the port can't be had.
bool gpsd_open(event_base* base, const GpsdSettings& settings);
void gpsd_close();

// The port that is listened on, 0 when none is.
int gpsd_port();

#endif
