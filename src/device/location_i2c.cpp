#include "device/location_i2c.h"

#include <cstdio>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// After a refused address the kernel would move the bytes to or from the address set before.
bool select_slave(int32_t fd, uint8_t slave_addr) {
    if (ioctl(fd, I2C_SLAVE, static_cast<unsigned long>(slave_addr)) < 0) {
        printf("[LOCSERV] ERR: [i2c]can't select slave 0x%x: a driver of the kernel may own it\n",
               slave_addr);
        return false;
    }
    return true;
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
    return select_slave(fd, slave_addr) ? read(fd, buffer, len) : -1;
}

ssize_t location_i2c_write(int32_t fd, uint8_t slave_addr, const void* buffer, size_t len) {
    return select_slave(fd, slave_addr) ? write(fd, buffer, len) : -1;
}

int32_t location_i2c_deinit(int32_t fd) {
    return close(fd);
}
