// The process's one multiplexer handle: its initial bus type decides which bus the chip is on.
#ifndef TAVOR_LOCATION_SERIAL_HANDLE_H
#define TAVOR_LOCATION_SERIAL_HANDLE_H

#include "mux/host_mux.h"

extern host_mux_handle g_location_serial_handle;

#endif
