// Cancellation of a thread, held off for a scope that owns something at a cancellation point.
#ifndef TAVOR_CANCEL_HOLD_H
#define TAVOR_CANCEL_HOLD_H

#include "base/non_copyable.h"

// Holds may nest; the outermost one gives back what the thread had before it.
struct CancelHold : private NonCopyable {
    CancelHold();
    ~CancelHold();
};

// A cancellation point inside of holds, where all that they protect is held by guards: acts on a cancellation
// unless it was held off before the outermost hold.
void cancel_hold_offer();

#endif
