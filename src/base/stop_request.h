// The stop request: a counter of those who want the chip's link left alone soon.
//
// The service thread can't be cancelled, and some of what it does with the chip has no limit of its own: each
// such loop asks stop_request_pending() and gives up. Announcements and withdrawals pair up. The service
// queue announces each stop and each download request when it is enqueued, and withdraws it when the request
// has been handled or could not be enqueued, so whatever is queued before that request returns soon.
// Closing the bus announces for as long as it takes (StopRequest), on the service thread, so that transfers
// of other threads return. While a download runs, its own announcement is set aside (StopRequestAside): it
// must not end itself, only the next request may.
#ifndef TAVOR_STOP_REQUEST_H
#define TAVOR_STOP_REQUEST_H

#include "base/non_copyable.h"

// Announce a stop and withdraw one announcement; withdraw returns false when there was none. Any thread.
void stop_request_announce();
bool stop_request_withdraw();

// Whether at least one stop is announced. Any thread.
bool stop_request_pending();

// Announces a stop for its lifetime.
struct StopRequest : private NonCopyable {
    StopRequest();
    ~StopRequest();
};

// Sets one announcement aside for its lifetime: that of the request that is being served.
struct StopRequestAside : private NonCopyable {
    StopRequestAside();
    ~StopRequestAside();

    const bool taken;
};

#endif
