// Platform port of the host multiplexer: buses by type, memory, delays, semaphores and mutexes.
#ifndef TAVOR_PORT_PLATFORM_H
#define TAVOR_PORT_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

enum host_mux_bus_type : uint32_t {
    HOST_MUX_BUS_I2C = 0,
    HOST_MUX_BUS_SPI = 1,
};

struct host_mux_spi_port_config {
    uint32_t frequency; // Hz
    uint8_t bit_order;  // 0 selects least-significant-bit-first transfers
    uint8_t cpha;
    uint8_t cpol;
    char path[128];
};

struct host_mux_i2c_port_config {
    uint32_t reserved; // not used by the port
    char path[128];
};

// One bus transaction. On SPI it clocks max(rx_len, tx_len) bytes in both directions, so each buffer that is
// not null must hold that many; on I2C exactly one of the lengths is above zero.
struct port_platform_transfer {
    uint8_t* rx_buf;
    const uint8_t* tx_buf;
    uint32_t rx_len;
    uint32_t tx_len;
    uint8_t slave_addr; // 7-bit I2C address, ignored on SPI
};

// Opens a bus from a host_mux_spi_port_config or host_mux_i2c_port_config. Returns its descriptor or -1.
int32_t port_platform_bus_init(uint32_t bus_type, const void* config);
// Closes a bus. Returns the result of close, -1 for an unknown type.
int32_t port_platform_bus_deinit(uint32_t bus_type, int32_t fd);
// Runs one transaction. Returns 0 when at least one byte moved, else -1; errno is what the device left,
// EMSGSIZE for a transaction that is too long.
int32_t port_platform_bus_transfer(uint32_t bus_type, int32_t fd, const port_platform_transfer* transfer);

// As malloc and free.
void* port_platform_malloc(size_t size);
void port_platform_free(void* memory);

// Sleep; a signal ends the sleep early.
void port_platform_delay_us(uint32_t us);
void port_platform_delay_ms(uint32_t ms); // at most 4294967
// Sleeps the whole time, also across signals.
void port_platform_sleep_ms(uint32_t ms);

using port_platform_semaphore = sem_t*;
using port_platform_mutex = pthread_mutex_t*;

// A process-private semaphore with count 1, or null.
port_platform_semaphore port_platform_create_semaphore();
// Frees the semaphore and sets the handle to null.
void port_platform_destroy_samphore(port_platform_semaphore* semaphore);

// A mutex that is not recursive, or null.
port_platform_mutex port_platform_create_mutex();
// Unlocks. Returns 0, -1 for a null handle.
int32_t port_platform_give_mutex(port_platform_mutex mutex);
// Frees the mutex and sets the handle to null.
void port_platform_destroy_mutex(port_platform_mutex* mutex);

// The rest completes the interface; the daemon does not call it.

// Locks: waits without limit, no cancellation point. Returns 0, -1 for a null handle.
int32_t port_platform_take_mutex(port_platform_mutex mutex);
// Adds one. Returns 0, -1 for a null handle.
int32_t port_platform_give_semaphore(port_platform_semaphore semaphore);
// Waits without limit, whatever timeout_ms says. Returns 0, -1 for a null handle.
int32_t port_platform_take_semaphore(port_platform_semaphore semaphore, uint32_t timeout_ms);

#endif
