// Fix and sky for the outputs: one epoch at a time, as soon as its last sentence has come.
#ifndef TAVOR_RELAY_GNSS_H
#define TAVOR_RELAY_GNSS_H

#include "gnss/gnss_epoch.h"

#include <functional>

// An output; it must not wait.
using GnssOutput = std::function<void(const GnssEpoch&)>;

// Behind hub_open.
void gnss_open();
void gnss_close();

// Registers an output; it gets every epoch from now on.
void gnss_take(GnssOutput output);

// The latest epoch that was told; empty before the first.
const GnssEpoch& gnss_latest();

#endif
