// How long a reply may wait for a client that does not read: pure bookkeeping, the clock is passed in.
#ifndef TAVOR_TAVOR_REPLY_H
#define TAVOR_TAVOR_REPLY_H

#include <cstdint>

// To be filled in with the module.

#endif
