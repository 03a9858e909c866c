// The steps of an SPI receive and send: what goes over the wire and into the log. All are called with
// g_host_mux_spi_master_mutex held and cancellation held off; all return false when a step failed, which has
// been logged.
#ifndef TAVOR_HOST_MUX_SPI_STEP_H
#define TAVOR_HOST_MUX_SPI_STEP_H

#include <cstdint>

// Most bytes of one data phase: a frame of 4096 bytes carries the opcode and the data.
inline constexpr uint32_t kHostMuxSpiDataMax = 4095;

// Ask for the bytes that the slave has to send or can take: *count is at most capacity or wanted, whatever it
// says. Each read that is too long for the device halves what later ones ask for, down to a byte; the slave
// keeps the rest. A send is never cut to fit: half a command is worse than none.
bool host_mux_spi_receive_length(uint32_t bus, uint32_t capacity, uint32_t* count);
bool host_mux_spi_send_length(uint32_t bus, uint32_t wanted, uint32_t* count);

// Forgets which reads were too long: for a device that is opened.
void host_mux_spi_longest_read_reset();

// Move count bytes, 1 to kHostMuxSpiDataMax.
bool host_mux_spi_receive_data(uint32_t bus, uint8_t* buffer, uint32_t count);
bool host_mux_spi_send_data(uint32_t bus, const uint8_t* data, uint32_t count);

#endif
