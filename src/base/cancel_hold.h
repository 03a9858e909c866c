// Holds cancellation of this thread off for a scope that owns something at a cancellation point.
#ifndef TAVOR_CANCEL_HOLD_H
#define TAVOR_CANCEL_HOLD_H

#include <pthread.h>

struct CancelHold {
    CancelHold() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_state);
    }
    ~CancelHold() {
        pthread_setcancelstate(previous_state, nullptr);
    }
    CancelHold(const CancelHold&) = delete;
    CancelHold& operator=(const CancelHold&) = delete;

    int previous_state = PTHREAD_CANCEL_ENABLE;
};

#endif
