// Host multiplexer over SPI: the receive and send operations.
#ifndef TAVOR_HOST_MUX_SPI_H
#define TAVOR_HOST_MUX_SPI_H

#include "device/port_platform.h"

#include <cstdint>

extern port_platform_mutex g_host_mux_spi_master_mutex;
extern port_platform_semaphore g_host_mux_spi_master_wait_send_done_xSemaphore;
extern port_platform_semaphore g_host_mux_spi_master_wait_receive_done_xSemaphore;

// Creates mutex and semaphores where they are missing and opens the bus. Returns its id or -1.
int32_t host_mux_spi_master_init(const host_mux_spi_port_config* config);

// Closes the bus and frees mutex and semaphores. Returns 0 or 1.
int32_t host_mux_spi_master_deinit(uint32_t bus);

// Move up to *length bytes; *length becomes the bytes moved. Return 0, or 1 when a step failed.
int32_t mux_spi_master_demo_receive(uint32_t bus, uint8_t* buffer, uint32_t* length);
int32_t mux_spi_master_demo_send(uint32_t bus, const uint8_t* data, uint32_t* length);

// The rest completes the interface; the daemon does not call it.

// Wait for and signal the end of a transfer, for ports that transfer in the background.
void portable_HOST_MUX_SPI_MASTER_wait_for_send_done();
void portable_HOST_MUX_SPI_MASTER_send_done();
void portable_HOST_MUX_SPI_MASTER_wait_for_receive_done();
void portable_HOST_MUX_SPI_MASTER_receive_done();

#endif
