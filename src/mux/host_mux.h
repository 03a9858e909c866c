// Host multiplexer: asks the chip how many bytes it has or takes, then moves at most that many.
// Dispatches by bus type.
#ifndef TAVOR_HOST_MUX_H
#define TAVOR_HOST_MUX_H

#include "device/port_platform.h"

#include <cstdint>

// Bus id of a handle that is not open.
inline constexpr uint32_t kHostMuxClosed = 0xFFFFFFFFu;

struct host_mux_handle {
    uint32_t bus_type; // host_mux_bus_type
    uint32_t id;       // descriptor of the bus, or kHostMuxClosed
};

// Opens the bus from a host_mux_spi_port_config or host_mux_i2c_port_config; waits for the transfers that are
// under way. Returns 0 (also when open already) or -1.
int32_t host_mux_init(host_mux_handle* handle, const void* config);

// Closes the bus. Returns 0 (also when not open), or -1 and the handle stays open.
int32_t host_mux_deinit(host_mux_handle* handle);

// Moves up to *length bytes from or to the chip and sets *length to the bytes moved, which may be 0. Return
// 0, or 1 when a step failed. Both are cancellation points while the chip does not answer or the other
// direction holds the bus.
int32_t host_mux_rx(host_mux_handle* handle, uint8_t* buffer, uint32_t* length);
int32_t host_mux_tx(host_mux_handle* handle, const uint8_t* data, uint32_t* length);

#endif
