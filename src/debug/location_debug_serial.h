// The serial debug line.
#ifndef TAVOR_LOCATION_DEBUG_SERIAL_H
#define TAVOR_LOCATION_DEBUG_SERIAL_H

#include <cstdint>

// Opens the configured line, unless it is open. Returns 0 or -1.
int32_t location_debug_serial_init();

// Waits for bytes and reads up to length of them. Returns as location_uart_read. A cancellation point.
int32_t location_debug_serial_read(uint8_t* buffer, uint32_t length);

// Writes length bytes, waiting while the line takes none. Returns as location_uart_write. A cancellation
// point.
int32_t location_debug_serial_write(const uint8_t* data, uint32_t length);

// Closes the line; neither read nor write may run. Returns 0 or the failing result of close.
int32_t location_debug_serial_deinit();

#endif
