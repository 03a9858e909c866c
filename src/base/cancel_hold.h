// Cancellation of a thread, held off for a scope that owns something at a cancellation point.
#ifndef TAVOR_CANCEL_HOLD_H
#define TAVOR_CANCEL_HOLD_H

#include "base/non_copyable.h"

// Holds may nest; the outermost one restores what the thread had before it.
struct CancelHold : private NonCopyable {
    CancelHold();
    ~CancelHold();
};

// A cancellation point in spite of the holds around it, unless the thread had cancellation disabled before
// the outermost one. Only for places where guards own all that must be released.
void cancel_hold_offer();

#endif
