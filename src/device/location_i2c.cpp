#include "device/location_i2c.h"

#include <cstdio>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// kept: not checked; where the address is refused, the transfer goes to the one set before.
void select_slave(int32_t fd, uint8_t slave_addr) {
    ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(slave_addr));
}

} // namespace

int32_t location_i2c_init(int32_t* fd, const location_i2c_config* config) {
    const int device = open(config->path, O_RDWR);
    if (device < 0) {
        puts("[LOCSERV] ERR: location_i2c_init, open fail");
        return -1;
    }
    *fd = device;
    return 0;
}

ssize_t location_i2c_read(int32_t fd, uint8_t slave_addr, void* buffer, size_t len) {
    select_slave(fd, slave_addr);
    return read(fd, buffer, len);
}

ssize_t location_i2c_write(int32_t fd, uint8_t slave_addr, const void* buffer, size_t len) {
    select_slave(fd, slave_addr);
    return write(fd, buffer, len);
}

int32_t location_i2c_deinit(int32_t fd) {
    return close(fd);
}
