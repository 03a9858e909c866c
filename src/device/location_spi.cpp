#include "device/location_spi.h"

#include "base/descriptor_guard.h"
#include "base/error_row.h"
#include "base/monotonic.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

// Settings and commands are shorter: a controller that takes these and refuses a longer message has a limit.
constexpr uint32_t kShortMessage = 32; // bytes

// Transfers come one at a time: whoever shares the device holds a lock of its own.
struct State {
    ErrorRow transfer;       // transfers that failed
    uint32_t failed_len = 0; // of the last one that did
    bool told_too_long = false;
} state;

// spidev has a buffer (EMSGSIZE), and a controller may have a limit of its own below it (often EINVAL).
bool is_too_long(int error, uint32_t len) {
    return error == EMSGSIZE || (error == EINVAL && len > kShortMessage);
}

void tell_too_long(uint32_t len) {
    if (!std::exchange(state.told_too_long, true)) {
        printf(
            "[LOCSERV] WRN: [spi]no message of %u bytes is taken: enlarge the buffer of spidev "
            "(spidev.bufsiz=4096 on the kernel's command line); the controller may have a limit of its own\n",
            len);
    }
}

uint64_t address_of(const uint8_t* buffer) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(buffer));
}

void log_left_out(uint32_t left_out) {
    if (left_out > 0) {
        printf("[LOCSERV] ERR: [spi]can't send spi message (%u left out)\n", left_out);
    }
}

// A link that fails may fail thousands of times a second: one line a second tells it. The same step of a
// protocol has the same length, so only the success of such a transfer ends the row: a long one that fails
// each time may stand between short ones that succeed.
void log_transfer(bool moved, uint32_t len) {
    uint32_t left_out = 0;
    if (!moved) {
        state.failed_len = len;
        if (error_row_tell(&state.transfer, monotonic_ms(), &left_out) && left_out == 0) {
            puts("[LOCSERV] ERR: [spi]can't send spi message");
        }
    } else if (len == state.failed_len) {
        left_out = error_row_end(&state.transfer);
    }
    log_left_out(left_out);
}

} // namespace

int32_t location_spi_init(int32_t* fd, const location_spi_config* config) {
    DescriptorGuard device(open(config->path, O_RDWR));
    if (device.fd < 0) {
        puts("[LOCSERV] ERR: [spi]location_spi_init, open fail");
        return -1;
    }
    if (location_spi_set_config(device.fd, config) != 0) {
        return -1;
    }
    *fd = device.release();
    return 0;
}

int32_t location_spi_set_config(int32_t fd, const location_spi_config* config) {
    if (ioctl(fd, SPI_IOC_WR_MODE32, &config->mode) < 0) {
        printf("[LOCSERV] ERR: [spi]can't set spi mode: %d\n", static_cast<int>(config->mode));
        return -1;
    }
    if (ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &config->bits_per_word) < 0) {
        printf("[LOCSERV] ERR: [spi]can't set bits per word: %d\n", config->bits_per_word);
        return -1;
    }
    if (ioctl(fd, SPI_IOC_WR_LSB_FIRST, &config->lsb_first) < 0) {
        printf("[LOCSERV] ERR: [spi]can't set LSB or MSB: %d\n", config->lsb_first);
        printf(
            "[LOCSERV] WRN: [spi]the controller has no such bit order: try \"SPI bit order=%d\" in tavor.conf\n",
            config->lsb_first != 0 ? 1 : 0); // the setting's 0 selects least significant bit first
        return -1;
    }
    if (ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &config->max_speed_hz) < 0) {
        printf("[LOCSERV] ERR: [spi]can't set max speed hz: %d\n", static_cast<int>(config->max_speed_hz));
        return -1;
    }
    return 0;
}

int32_t location_spi_transfer(int32_t fd, const uint8_t* tx_buf, uint8_t* rx_buf, uint32_t len) {
    // Zero in speed, delay, word size and chip select: the device's own settings count.
    spi_ioc_transfer message = {};
    message.tx_buf = address_of(tx_buf);
    message.rx_buf = address_of(rx_buf);
    message.len = len;
    const int moved = ioctl(fd, SPI_IOC_MESSAGE(1), &message);
    const int error = errno;
    log_transfer(moved >= 0, len);
    if (moved >= 0) {
        return moved;
    }
    errno = error;
    if (is_too_long(error, len)) {
        tell_too_long(len);
        errno = EMSGSIZE;
    }
    return -1;
}

ssize_t location_spi_read(int32_t fd, void* buffer, size_t len) {
    return read(fd, buffer, len);
}

ssize_t location_spi_write(int32_t fd, const void* buffer, size_t len) {
    return write(fd, buffer, len);
}

int32_t location_spi_deinit(int32_t fd) {
    const int32_t result = close(fd);
    log_left_out(error_row_end(&state.transfer));
    return result;
}
