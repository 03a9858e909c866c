// How a multiplexer operation waits without ever holding up a stop: cancellation is held off while an
// operation runs and offered at each round of a wait that has no limit of its own.
#ifndef TAVOR_HOST_MUX_LOCK_H
#define TAVOR_HOST_MUX_LOCK_H

#include "base/cancel_hold.h"
#include "device/port_platform.h"

// Pause between two rounds of an unlimited wait, a cancellation point. Returns false when a stop is pending.
bool host_mux_next_round();

// Takes the mutex, a cancellation point while another thread holds it. A pending stop does not fail it: every
// holder then comes back soon. Returns false for a null mutex only.
bool host_mux_take(port_platform_mutex mutex);

// Takes the mutex, for a thread that waits for what is no link's operation: gives way to a pending stop.
// Returns whether the mutex is taken.
bool host_mux_take_unless_stopped(port_platform_mutex mutex);

// Holds cancellation off for an operation; unlike a plain CancelHold it lets the waits above offer what its
// caller had.
struct HostMuxCancelHold {
    HostMuxCancelHold();
    ~HostMuxCancelHold();
    HostMuxCancelHold(const HostMuxCancelHold&) = delete;
    HostMuxCancelHold& operator=(const HostMuxCancelHold&) = delete;

    const CancelHold hold;
};

#endif
