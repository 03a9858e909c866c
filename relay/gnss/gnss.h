// Fix and sky for the outputs: one epoch at a time, as soon as all outputs have its last sentence. After 10
// seconds without a sentence, nothing that was heard before them is reported.
#ifndef TAVOR_RELAY_GNSS_H
#define TAVOR_RELAY_GNSS_H

#include "gnss/gnss_epoch.h"

#include <functional>

// An output; it must not wait.
using GnssOutput = std::function<void(const GnssEpoch&)>;

// Call after positioning_open. Tests shorten the second of the limit.
void gnss_open(std::chrono::milliseconds second = std::chrono::milliseconds(1000));
void gnss_close();

// Registers an output; it gets every epoch from now on.
void gnss_take(GnssOutput output);

// The latest epoch that was reported. Empty before the first, when it was reported more than 10 seconds ago,
// and while there is no daemon or positioning is off.
const GnssEpoch& gnss_latest();

#endif
