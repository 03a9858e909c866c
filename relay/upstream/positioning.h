// Whether positioning is on, and whether it should be.
//
// It should be on always, or while a consumer wants it and some time longer, as the policy says; a stop for
// all keeps it off until the next start that somebody asks for. What an earlier relay has left on is stopped
// as after a last consumer, unless one comes in time. When nothing came for five seconds although
// it is on, the daemon is asked to start again, and again after twice the time, up to a minute: a client that
// went to the daemon itself has taken the output.
#ifndef TAVOR_RELAY_POSITIONING_H
#define TAVOR_RELAY_POSITIONING_H

#include "upstream/upstream.h"

struct PositioningSettings {
    bool always = true;
    std::chrono::milliseconds stop_delay{10000}; // after the last consumer
    bool left_on = false;                        // it may be on by a relay that has ended
    std::chrono::milliseconds second{1000};      // length of a second of all limits; tests shorten it
};

// Call after upstream_open.
void positioning_open(event_base* base, const PositioningSettings& settings);
void positioning_close();

// A consumer has come (+1) or left (-1).
void positioning_want(int change);

// Asks that it be on; answered at once when it is, and with failure while 4,096 wait for the answer.
void positioning_start(UpstreamAnswer answer);

// Asks that it be off. Unless it is for all, nothing is stopped while a consumer or the policy wants it, nor
// a firmware download, and the answer is success. The asker is no consumer any more.
void positioning_stop(bool for_all, UpstreamAnswer answer);

// Asks for a firmware download, which stops positioning; it starts again afterwards when it should be on.
void positioning_download(UpstreamAnswer answer);

bool positioning_is_on();

#endif
