#include "device/port_platform.h"

#include "base/format.h"
#include "base/free_block.h"
#include "device/location_i2c.h"
#include "device/location_spi.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/select.h>
#include <unistd.h>

namespace {

constexpr uint32_t kMsPerSecond = 1000;
constexpr uint32_t kUsPerMs = 1000;
constexpr uint8_t kBitsPerWord = 8;
constexpr uint32_t kCpolWeight = 2; // CPOL is bit 1 of the SPI mode
constexpr int kProcessPrivate = 0;
constexpr unsigned kInitialCount = 1;

template <size_t Size> void copy_path(char (&dst)[Size], const char* path) {
    if (format(dst, Size, "%s", path) < 0) {
        puts("port_platform_bus_init, get path fail");
    }
}

int32_t spi_init(const host_mux_spi_port_config& config) {
    location_spi_config settings = {};
    settings.mode = config.cpha + kCpolWeight * config.cpol;
    // Kept: the order is turned round here; the default 0 means least significant bit first.
    settings.lsb_first = config.bit_order == 0 ? 1 : 0;
    settings.bits_per_word = kBitsPerWord;
    settings.max_speed_hz = config.frequency;
    copy_path(settings.path, config.path);
    int32_t fd = -1;
    return location_spi_init(&fd, &settings) == -1 ? -1 : fd;
}

int32_t i2c_init(const host_mux_i2c_port_config& config) {
    location_i2c_config settings = {};
    copy_path(settings.path, config.path);
    int32_t fd = -1;
    return location_i2c_init(&fd, &settings) == -1 ? -1 : fd;
}

int32_t spi_transfer(int32_t fd, const port_platform_transfer& transfer) {
    const uint32_t length = std::max(transfer.rx_len, transfer.tx_len);
    return location_spi_transfer(fd, transfer.tx_buf, transfer.rx_buf, length) >= 1 ? 0 : -1;
}

int32_t i2c_transfer(int32_t fd, const port_platform_transfer& transfer) {
    if (transfer.rx_len > 0 && transfer.tx_len > 0) {
        puts("port_platform_bus_transfer, rx len > 0 and tx len > 0");
        return -1;
    }
    if (transfer.rx_len > 0) {
        return location_i2c_read(fd, transfer.slave_addr, transfer.rx_buf, transfer.rx_len) >= 1 ? 0 : -1;
    }
    if (transfer.tx_len > 0) {
        return location_i2c_write(fd, transfer.slave_addr, transfer.tx_buf, transfer.tx_len) >= 1 ? 0 : -1;
    }
    puts("port_platform_bus_transfer, len <= 0");
    return -1;
}

} // namespace

int32_t port_platform_bus_init(uint32_t bus_type, const void* config) {
    switch (bus_type) {
    case HOST_MUX_BUS_SPI:
        return spi_init(*static_cast<const host_mux_spi_port_config*>(config));
    case HOST_MUX_BUS_I2C:
        return i2c_init(*static_cast<const host_mux_i2c_port_config*>(config));
    default:
        return -1;
    }
}

int32_t port_platform_bus_deinit(uint32_t bus_type, int32_t fd) {
    switch (bus_type) {
    case HOST_MUX_BUS_SPI:
        return location_spi_deinit(fd);
    case HOST_MUX_BUS_I2C:
        return location_i2c_deinit(fd);
    default:
        return -1;
    }
}

int32_t port_platform_bus_transfer(uint32_t bus_type, int32_t fd, const port_platform_transfer* transfer) {
    switch (bus_type) {
    case HOST_MUX_BUS_SPI:
        return spi_transfer(fd, *transfer);
    case HOST_MUX_BUS_I2C:
        return i2c_transfer(fd, *transfer);
    default:
        return -1;
    }
}

void* port_platform_malloc(size_t size) {
    return malloc(size);
}

void port_platform_free(void* memory) {
    free(memory);
}

void port_platform_delay_us(uint32_t us) {
    usleep(us);
}

void port_platform_delay_ms(uint32_t ms) {
    usleep(ms * kUsPerMs);
}

void port_platform_sleep_ms(uint32_t ms) {
    timeval left = {};
    left.tv_sec = ms / kMsPerSecond;
    left.tv_usec = static_cast<suseconds_t>(ms % kMsPerSecond) * kUsPerMs;
    // select leaves the time that is left, so an interrupted wait goes on where it was.
    while (select(0, nullptr, nullptr, nullptr, &left) < 0 && errno == EINTR) {
    }
}

port_platform_semaphore port_platform_create_semaphore() {
    std::unique_ptr<sem_t, FreeBlock> semaphore(static_cast<sem_t*>(malloc(sizeof(sem_t))));
    if (semaphore == nullptr || sem_init(semaphore.get(), kProcessPrivate, kInitialCount) != 0) {
        return nullptr;
    }
    return semaphore.release();
}

int32_t port_platform_give_semaphore(port_platform_semaphore semaphore) {
    return semaphore == nullptr ? -1 : sem_post(semaphore);
}

int32_t port_platform_take_semaphore(port_platform_semaphore semaphore,
                                     [[maybe_unused]] uint32_t timeout_ms) {
    return semaphore == nullptr ? -1 : sem_wait(semaphore);
}

void port_platform_destroy_samphore(port_platform_semaphore* semaphore) {
    if (*semaphore == nullptr) {
        return;
    }
    const std::unique_ptr<sem_t, FreeBlock> memory(*semaphore);
    *semaphore = nullptr;
    const int ret = sem_destroy(memory.get());
    if (ret != 0) {
        printf("port_platform_destroy_samphore fail, ret:%d\n", ret);
    }
}

port_platform_mutex port_platform_create_mutex() {
    std::unique_ptr<pthread_mutex_t, FreeBlock> mutex(
        static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t))));
    if (mutex == nullptr || pthread_mutex_init(mutex.get(), nullptr) != 0) {
        return nullptr;
    }
    return mutex.release();
}

int32_t port_platform_give_mutex(port_platform_mutex mutex) {
    return mutex != nullptr && pthread_mutex_unlock(mutex) == 0 ? 0 : -1;
}

int32_t port_platform_take_mutex(port_platform_mutex mutex) {
    return mutex != nullptr && pthread_mutex_lock(mutex) == 0 ? 0 : -1;
}

void port_platform_destroy_mutex(port_platform_mutex* mutex) {
    if (*mutex == nullptr) {
        return;
    }
    const std::unique_ptr<pthread_mutex_t, FreeBlock> memory(*mutex);
    *mutex = nullptr;
    const int ret = pthread_mutex_destroy(memory.get());
    if (ret != 0) {
        printf("port_platform_destroy_mutex fail, ret:%d\n", ret);
    }
}
