#include "link/location_i2c.h"

#include <cstdio>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

int32_t location_i2c_init(int32_t* fd, const location_i2c_config* config) {
    *fd = open(config->path, O_RDWR);
    if (*fd < 0) {
        puts("[LOCSERV] ERR: location_i2c_init, open fail");
        return -1;
    }
    return 0;
}

// The result of setting the address is not checked: a bus that refuses it fails the read or write that
// follows.
ssize_t location_i2c_read(int32_t fd, uint8_t slave_addr, void* buffer, size_t len) {
    ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(slave_addr));
    return read(fd, buffer, len);
}

ssize_t location_i2c_write(int32_t fd, uint8_t slave_addr, const void* buffer, size_t len) {
    ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(slave_addr));
    return write(fd, buffer, len);
}

int32_t location_i2c_deinit(int32_t fd) {
    return close(fd);
}
