// The log file of the debug outlet. Each block is written at once, so that an engineer can watch the file
// grow and a full disk shows with the block that did not fit; blocks are few (some ten a second) and large,
// so buffering would gain nothing.
#ifndef TAVOR_LOCATION_DEBUG_LOG_H
#define TAVOR_LOCATION_DEBUG_LOG_H

#include <cstdint>

// Opens the configured file for appending, unless it is open; a pipe or a device is refused, because it could
// hold up the receive thread. Returns 0 or -1.
int32_t location_debug_log_open();

// Appends length bytes if the file is open. Any thread; may run beside open and close.
void location_debug_log_write(const uint8_t* data, uint32_t length);

// Closes the file; one that fails to close stays open, and the next close tries again.
void location_debug_log_close();

#endif
