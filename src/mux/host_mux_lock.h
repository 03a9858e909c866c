// Waits of a multiplexer operation. Each may be cancelled between two rounds, although the operation itself
// holds cancellation off; waits for the chip also end when a stop is requested.
#ifndef TAVOR_HOST_MUX_LOCK_H
#define TAVOR_HOST_MUX_LOCK_H

#include "device/port_platform.h"

#include <cstdint>

// Pause between two rounds of a wait without limit: 5 ms at first, for a slave that is about to answer, and
// twice as long each time up to the 300 ms of the idle poll, for one that is absent.
struct HostMuxPause {
    uint32_t us = 5000;
};

// Pauses, then acts on a cancellation. Returns false when a stop is pending; a stop waits for one pause at
// most.
bool host_mux_next_round(HostMuxPause* pause);

// Takes the mutex, a cancellation point while another thread holds it. A pending stop does not fail it: every
// holder then comes back soon. Returns false for a null mutex only.
bool host_mux_take(port_platform_mutex mutex);

#endif
