// Host multiplexer over I2C: the receive and send operations.
#ifndef TAVOR_HOST_MUX_I2C_H
#define TAVOR_HOST_MUX_I2C_H

#include "device/port_platform.h"

#include <cstdint>

extern port_platform_mutex g_host_mux_i2c_master_mutex;

// Creates the mutex where it is missing and opens the bus. Returns its id or -1.
int32_t host_mux_i2c_master_init(const host_mux_i2c_port_config* config);

// Closes the bus and frees the mutex. Returns 0 or 1.
int32_t host_mux_i2c_master_deinit(uint32_t bus);

// Move up to *length bytes; *length becomes the bytes moved. Return 0, or 1 when a step failed six times, or
// once while a stop is announced.
int32_t mux_i2c_master_demo_receive(uint32_t bus, uint8_t* buffer, uint32_t* length);
int32_t mux_i2c_master_demo_send(uint32_t bus, const uint8_t* data, uint32_t* length);

#endif
