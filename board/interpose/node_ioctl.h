// The requests of spidev and i2c-dev in the terms of a node, for both variants of the backend. A Node has
// spi_message, spi_set, spi_get, i2c_select, i2c_set and i2c_message; each returns -1 and errno on failure.
#ifndef TAVOR_BOARD_NODE_IOCTL_H
#define TAVOR_BOARD_NODE_IOCTL_H

#include "devices/board_devices.h"

#include <cerrno>
#include <cstdint>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

inline constexpr uint32_t kI2cMessageSizeMax = 8192; // bytes

inline int node_refuse(int error) {
    errno = error;
    return -1;
}

// spidev passes addresses of the program as 64-bit words.
inline uint8_t* node_address(uint64_t word) {
    return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(word)); // NOLINT(performance-no-int-to-ptr)
}

// Passes each message of I2C_RDWR on until one fails. Returns the count of messages, or -1 and errno. No
// other message comes between them on a real bus; here another thread's may.
template <typename Node> int node_i2c_messages(Node& node, const i2c_rdwr_ioctl_data* data) {
    if (data->nmsgs == 0 || data->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS || data->msgs == nullptr) {
        return node_refuse(EINVAL);
    }
    for (uint32_t i = 0; i < data->nmsgs; ++i) {
        if (data->msgs[i].len > kI2cMessageSizeMax) {
            return node_refuse(EINVAL);
        }
    }
    for (uint32_t i = 0; i < data->nmsgs; ++i) {
        if (node.i2c_message(data->msgs[i]) < 0) {
            return -1;
        }
    }
    return static_cast<int>(data->nmsgs);
}

// Requests that need an address in the program; no I2C node refuses the setting.
template <typename Node> int node_i2c_place(Node& node, unsigned long request, void* argument) {
    if (argument == nullptr) {
        return node_refuse(EFAULT);
    }
    if (node.i2c_set(BoardI2cSetting::flag, 0) < 0) {
        return -1;
    }
    if (request == I2C_RDWR) {
        return node_i2c_messages(node, static_cast<const i2c_rdwr_ioctl_data*>(argument));
    }
    *static_cast<unsigned long*>(argument) = kBoardI2cFunctions;
    return 0;
}

template <typename Value, typename Node> int node_spi_get(Node& node, BoardSpiSetting setting, void* place) {
    uint32_t value = 0;
    if (node.spi_get(setting, value) < 0) {
        return -1;
    }
    *static_cast<Value*>(place) = static_cast<Value>(value);
    return 0;
}

template <typename Node> int node_spi_setting(Node& node, unsigned long request, void* argument) {
    if (argument == nullptr) {
        return node_refuse(EFAULT);
    }
    const auto* byte = static_cast<const uint8_t*>(argument);
    const auto* word = static_cast<const uint32_t*>(argument);
    switch (request) {
    case SPI_IOC_WR_MODE:
        return node.spi_set(BoardSpiSetting::mode, *byte);
    case SPI_IOC_WR_MODE32:
        return node.spi_set(BoardSpiSetting::mode, *word);
    case SPI_IOC_WR_LSB_FIRST:
        return node.spi_set(BoardSpiSetting::lsb_first, *byte);
    case SPI_IOC_WR_BITS_PER_WORD:
        return node.spi_set(BoardSpiSetting::bits_per_word, *byte);
    case SPI_IOC_WR_MAX_SPEED_HZ:
        return node.spi_set(BoardSpiSetting::speed_hz, *word);
    case SPI_IOC_RD_MODE:
        return node_spi_get<uint8_t>(node, BoardSpiSetting::mode, argument);
    case SPI_IOC_RD_MODE32:
        return node_spi_get<uint32_t>(node, BoardSpiSetting::mode, argument);
    case SPI_IOC_RD_LSB_FIRST:
        return node_spi_get<uint8_t>(node, BoardSpiSetting::lsb_first, argument);
    case SPI_IOC_RD_BITS_PER_WORD:
        return node_spi_get<uint8_t>(node, BoardSpiSetting::bits_per_word, argument);
    case SPI_IOC_RD_MAX_SPEED_HZ:
        return node_spi_get<uint32_t>(node, BoardSpiSetting::speed_hz, argument);
    default:
        return node_refuse(ENOTTY);
    }
}

template <typename Node> int node_spi_message(Node& node, unsigned long request, const void* argument) {
    if (_IOC_SIZE(request) % sizeof(spi_ioc_transfer) != 0) {
        return node_refuse(EINVAL);
    }
    const size_t count = _IOC_SIZE(request) / sizeof(spi_ioc_transfer);
    if (count != 0 && argument == nullptr) {
        return node_refuse(EFAULT);
    }
    return node.spi_message(static_cast<const spi_ioc_transfer*>(argument), count);
}

// Behaves as ioctl on the node. The argument of most requests of i2c-dev is the value itself.
template <typename Node> int node_ioctl(Node& node, unsigned long request, void* argument) {
    const auto value = reinterpret_cast<uintptr_t>(argument);
    switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
        return node.i2c_select(value);
    case I2C_TENBIT:
    case I2C_PEC:
        return node.i2c_set(BoardI2cSetting::flag, value);
    case I2C_RETRIES:
    case I2C_TIMEOUT:
        return node.i2c_set(BoardI2cSetting::limit, value);
    case I2C_FUNCS:
    case I2C_RDWR:
        return node_i2c_place(node, request, argument);
    default:
        break;
    }
    if (_IOC_TYPE(request) != SPI_IOC_MAGIC) {
        return node_refuse(ENOTTY);
    }
    const bool is_message = _IOC_NR(request) == 0 && _IOC_DIR(request) == _IOC_WRITE;
    return is_message ? node_spi_message(node, request, argument) : node_spi_setting(node, request, argument);
}

#endif
