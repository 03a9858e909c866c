// I2C_RDWR of i2c-dev in the terms of one message, for both variants of the backend.
#ifndef TAVOR_BOARD_I2C_MESSAGES_H
#define TAVOR_BOARD_I2C_MESSAGES_H

#include <cerrno>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

inline constexpr uint32_t kI2cMessageSizeMax = 8192; // bytes

// Calls transfer with each message until one fails. Returns the count of messages, or -1 and errno. No other
// message comes between them on a real bus; here another thread's may.
template <typename Transfer> int i2c_messages(const i2c_rdwr_ioctl_data* data, Transfer transfer) {
    errno = EINVAL;
    if (data->nmsgs == 0 || data->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS || data->msgs == nullptr) {
        return -1;
    }
    for (uint32_t i = 0; i < data->nmsgs; ++i) {
        if (data->msgs[i].len > kI2cMessageSizeMax) {
            return -1;
        }
    }
    for (uint32_t i = 0; i < data->nmsgs; ++i) {
        if (transfer(data->msgs[i]) < 0) {
            return -1;
        }
    }
    return static_cast<int>(data->nmsgs);
}

#endif
