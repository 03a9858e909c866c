// An i2c-dev device: open, read, write, close. The slave address is set before each read and write.
#ifndef TAVOR_LOCATION_I2C_H
#define TAVOR_LOCATION_I2C_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct location_i2c_config {
    char path[128];
};

// Opens the device into *fd. Returns 0 or -1.
int32_t location_i2c_init(int32_t* fd, const location_i2c_config* config);

// Reads or writes len bytes at the 7-bit slave address. Return the bytes moved, or -1, also when the address
// is refused.
ssize_t location_i2c_read(int32_t fd, uint8_t slave_addr, void* buffer, size_t len);
ssize_t location_i2c_write(int32_t fd, uint8_t slave_addr, const void* buffer, size_t len);

// Closes the descriptor. Returns the result of close.
int32_t location_i2c_deinit(int32_t fd);

#endif
