// The debug outlet: mirrors what the chip sends to a log file, a serial line or TCP clients, and passes what
// an engineer types on the latter two to the chip.
#ifndef TAVOR_LOCATION_DEBUG_H
#define TAVOR_LOCATION_DEBUG_H

#include "debug/location_debug_mode.h"

#include <cstdint>

// Sets the initial values; called once.
void location_debug_init();

// Opens the outlet of the current mode and starts its threads. Returns 0 or -1.
int32_t location_debug_start();

// Closes the outlet and stops its threads; the mode is kept.
void location_debug_close();

// Closes the outlet and switches it off.
void location_debug_stop();

// Switches to a mode; does nothing when it is the current one. Returns 0 or -1.
int32_t location_debug_set_mode(uint32_t mode);

// Hands length bytes of the chip's output to the outlet; called by the receive thread.
void location_debug_handle(const uint8_t* data, uint32_t length);

// Closes *fd unless it is -1 or -2, and sets it to -1 on success. Returns 0 or the failing result of close.
int32_t location_debug_close_fd(int32_t* fd);

#endif
