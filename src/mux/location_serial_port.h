// The chip link as a serial port: the host multiplexer with the configured SPI bus.
#ifndef TAVOR_LOCATION_SERIAL_PORT_H
#define TAVOR_LOCATION_SERIAL_PORT_H

#include <cstdint>

// Most bytes that one read or write moves.
inline constexpr uint32_t kGnssTransferMax = 4095;

// Opens the link as configured. Returns 0 (also when open already) or -1.
int32_t location_serial_port_gnss_init();

// Reads up to capacity bytes, at most kGnssTransferMax. Returns the bytes read; 0 when there are none or a
// step failed.
int32_t location_serial_port_gnss_read(uint8_t* buffer, uint32_t capacity);

// Writes up to length bytes, at most kGnssTransferMax. Returns the bytes written; 0 when the chip took none
// or a step failed.
int32_t location_serial_port_gnss_write(const uint8_t* data, uint32_t length);

// Closes the link. Returns 0 (also when not open) or -1.
int32_t location_serial_port_gnss_deinit();

// The rest completes the interface; the daemon does not call it.

// A 10 ms low pulse on output line 0, for boards that wire the chip's reset there.
void location_serial_port_gnss_reset();

#endif
