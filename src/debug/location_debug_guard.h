// Holds cancellation off for a piece of code that owns something at a cancellation point.
#ifndef TAVOR_LOCATION_DEBUG_GUARD_H
#define TAVOR_LOCATION_DEBUG_GUARD_H

#include <pthread.h>

struct DebugCancelHold {
    DebugCancelHold() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_state);
    }
    ~DebugCancelHold() {
        pthread_setcancelstate(previous_state, nullptr);
    }
    DebugCancelHold(const DebugCancelHold&) = delete;
    DebugCancelHold& operator=(const DebugCancelHold&) = delete;

    int previous_state;
};

#endif
