// The time from a sentence's sending by the daemon to its arrival at a consumer.
#ifndef TAVOR_BENCH_RELAY_LATENCY_H
#define TAVOR_BENCH_RELAY_LATENCY_H

#include "relay/consumers.h"

#include <cstddef>

// Plays a daemon to the relay and a receiver to gpsd, ten epochs a second for this many seconds each, and
// prints median and 99 % of the time from the last sentence of an epoch to what it makes a consumer get.
void latency_report(const char* name, ConsumerKind kind, size_t count, int64_t seconds);

#endif
