// How a multiplexer operation waits without ever holding up a stop: cancellation is held off while an
// operation runs and offered at each round of a wait that has no limit of its own.
#ifndef TAVOR_HOST_MUX_LOCK_H
#define TAVOR_HOST_MUX_LOCK_H

#include "link/port_platform.h"

// Announces that the link is about to be stopped, and that it has been. While at least one stop is pending,
// unlimited waits end with failure, so that a thread which can't be cancelled comes back too. Calls pair up;
// any thread.
void host_mux_stop_begin();
void host_mux_stop_end();
bool host_mux_stop_pending();

// Pause between two rounds of an unlimited wait, a cancellation point. Returns false when a stop is pending.
bool host_mux_next_round();

// Takes the mutex, a cancellation point while another thread holds it. A pending stop does not fail it: every
// holder then comes back soon. Returns false for a null mutex only.
bool host_mux_take(port_platform_mutex mutex);

// Holds cancellation off for its lifetime.
struct HostMuxCancelHold {
    HostMuxCancelHold();
    ~HostMuxCancelHold();
    HostMuxCancelHold(const HostMuxCancelHold&) = delete;
    HostMuxCancelHold& operator=(const HostMuxCancelHold&) = delete;

    int previous_state;
};

#endif
