// How a multiplexer operation waits without ever holding up a stop: it runs under a CancelHold, and each
// round of a wait that has no limit of its own offers cancellation.
#ifndef TAVOR_HOST_MUX_LOCK_H
#define TAVOR_HOST_MUX_LOCK_H

#include "device/port_platform.h"

// Pause (5 ms) between two rounds of an unlimited wait, a cancellation point. Returns false when a stop is
// pending.
bool host_mux_next_round();

// Takes the mutex, a cancellation point while another thread holds it. A pending stop does not fail it: every
// holder then comes back soon. Returns false for a null mutex only.
bool host_mux_take(port_platform_mutex mutex);

#endif
