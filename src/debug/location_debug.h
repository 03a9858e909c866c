// The debug outlet: mirrors what the chip sends to a log file, a serial line or TCP clients, and passes what
// an engineer types on the latter two to the chip.
#ifndef TAVOR_LOCATION_DEBUG_H
#define TAVOR_LOCATION_DEBUG_H

#include <cstdint>

enum location_debug_mode : uint32_t {
    DEBUG_MODE_OFF = 0,
    DEBUG_MODE_FILE = 1,
    DEBUG_MODE_SERIAL = 2,
    DEBUG_MODE_TCP = 3,
};

// Sets the start values; called once.
void location_debug_init();

// Opens the outlet of the current mode and starts its threads. Returns 0 or -1.
int32_t location_debug_start();

// Closes the outlet and stops its threads; the mode is kept.
void location_debug_close();

// Closes the outlet and switches it off.
void location_debug_stop();

// Switches to a mode; nothing is done when it is the current one. Returns 0 or -1.
int32_t location_debug_set_mode(uint32_t mode);

// Hands length bytes of the chip's output to the outlet; called by the receive thread.
void location_debug_handle(const uint8_t* data, uint32_t length);

#endif
