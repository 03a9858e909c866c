// The chip as an SPI slave: status polling, error recovery and power of its SPI interface. All are called
// with g_host_mux_spi_master_mutex held and cancellation held off.
#ifndef TAVOR_HOST_MUX_SPI_SLAVE_H
#define TAVOR_HOST_MUX_SPI_SLAVE_H

#include <cstdint>

// Status byte of the slave.
inline constexpr uint8_t kSpiSlavePowered = 0x01;
inline constexpr uint8_t kSpiSlaveConfigDone = 0x04;
inline constexpr uint8_t kSpiSlaveError = 0x18;
inline constexpr uint8_t kSpiSlaveDataDone = 0x20;
inline constexpr uint8_t kSpiSlaveSilent = 0xFF;

// Clocks max(rx_len, tx_len) bytes; both buffers hold that many. Returns 0, or -1 with errno as the device
// left it, 0 when it left none.
int32_t host_mux_spi_transfer(uint32_t bus, const uint8_t* tx, uint32_t tx_len, uint8_t* rx, uint32_t rx_len);

// Polls the status, at most 100 times 5 ms apart, until (status & mask) == expected. Returns 0, or 1 after a
// failure, an error status (the slave has then been reset), the last poll, or the first one while a stop is
// pending.
int32_t portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(uint32_t bus, uint8_t mask, uint8_t expected);

// Switch the slave's SPI interface and repeat until it confirms. Return 0, or 1 when a transfer fails or a
// stop is pending.
int32_t portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER(uint32_t bus);
int32_t host_mux_spi_power_on_without_counter(uint32_t bus);

// Counted: the first on and the last off switch the slave. Return 0, or 1 with the counter unchanged.
int32_t host_mux_spi_power_on(uint32_t bus);
int32_t portable_HAL_SPI_POWER_OFF(uint32_t bus);

// One open power-on request fewer, for an operation that can't switch off any more; and back to none. They
// touch no bus and need no mutex.
void host_mux_spi_power_counter_drop();
void host_mux_spi_power_counter_reset();

// Called in this module only; here for its tests.

// The number of open power-on requests. Needs no mutex.
int32_t host_mux_spi_power_counter();

#endif
