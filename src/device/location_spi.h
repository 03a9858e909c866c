// A spidev device: open, configure, transfer, close.
#ifndef TAVOR_LOCATION_SPI_H
#define TAVOR_LOCATION_SPI_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct location_spi_config {
    uint32_t mode;         // 0 to 3: bit 0 CPHA, bit 1 CPOL
    uint8_t lsb_first;     // 1: least significant bit first
    uint8_t bits_per_word; // 8
    uint32_t max_speed_hz;
    char path[128];
};

// Opens the device into *fd and applies the settings. Returns 0, or -1 with nothing left open.
int32_t location_spi_init(int32_t* fd, const location_spi_config* config);

// Writes mode, word size, bit order and clock, in this order. Returns 0, or -1 at the first that fails.
int32_t location_spi_set_config(int32_t fd, const location_spi_config* config);

// One full-duplex transfer of len bytes; both buffers hold len bytes, either may be null. Returns the bytes
// moved, or -1 with errno set: EMSGSIZE when the device or the controller can't take a message this long.
int32_t location_spi_transfer(int32_t fd, const uint8_t* tx_buf, uint8_t* rx_buf, uint32_t len);

// Closes the descriptor. Returns the result of close.
int32_t location_spi_deinit(int32_t fd);

// The rest completes the interface; the daemon does not call it.

// Plain read and write on the descriptor. Return the bytes moved or -1.
ssize_t location_spi_read(int32_t fd, void* buffer, size_t len);
ssize_t location_spi_write(int32_t fd, const void* buffer, size_t len);

#endif
