#include "link/port_platform.h"

#include "link/location_i2c.h"
#include "link/location_spi.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/select.h>
#include <unistd.h>

namespace {

constexpr uint8_t kBitsPerWord = 8;
constexpr uint32_t kMsPerSecond = 1000;
constexpr uint32_t kUsPerMs = 1000;

void copy_path(char (&dst)[128], const char* path) {
    if (snprintf(dst, sizeof dst, "%s", path) < 0) {
        puts("port_platform_bus_init, get path fail");
    }
}

int32_t spi_bus_init(const host_mux_spi_port_config* config) {
    location_spi_config spi = {};
    spi.mode = static_cast<uint32_t>(config->cpha) + 2U * config->cpol;
    spi.lsb_first =
        config->bit_order == 0 ? 1 : 0; // kept: the default bit order 0 is least significant bit first
    spi.bits_per_word = kBitsPerWord;
    spi.max_speed_hz = config->frequency;
    copy_path(spi.path, config->path);
    int32_t fd = -1;
    return location_spi_init(&fd, &spi) == 0 ? fd : -1;
}

int32_t i2c_bus_init(const host_mux_i2c_port_config* config) {
    location_i2c_config i2c = {};
    copy_path(i2c.path, config->path);
    int32_t fd = -1;
    return location_i2c_init(&fd, &i2c) == 0 ? fd : -1;
}

int32_t spi_bus_transfer(int32_t fd, const port_platform_transfer* transfer) {
    const uint32_t length = std::max(transfer->rx_len, transfer->tx_len);
    return location_spi_transfer(fd, transfer->tx_buf, transfer->rx_buf, length) >= 1 ? 0 : -1;
}

int32_t i2c_bus_transfer(int32_t fd, const port_platform_transfer* transfer) {
    if (transfer->rx_len > 0 && transfer->tx_len > 0) {
        puts("port_platform_bus_transfer, rx len > 0 and tx len > 0");
        return -1;
    }
    if (transfer->rx_len > 0) {
        return location_i2c_read(fd, transfer->slave_addr, transfer->rx_buf, transfer->rx_len) >= 1 ? 0 : -1;
    }
    if (transfer->tx_len > 0) {
        return location_i2c_write(fd, transfer->slave_addr, transfer->tx_buf, transfer->tx_len) >= 1 ? 0 : -1;
    }
    puts("port_platform_bus_transfer, len <= 0");
    return -1;
}

} // namespace

int32_t port_platform_bus_init(uint32_t bus_type, const void* config) {
    switch (bus_type) {
    case HOST_MUX_BUS_SPI:
        return spi_bus_init(static_cast<const host_mux_spi_port_config*>(config));
    case HOST_MUX_BUS_I2C:
        return i2c_bus_init(static_cast<const host_mux_i2c_port_config*>(config));
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
        return spi_bus_transfer(fd, transfer);
    case HOST_MUX_BUS_I2C:
        return i2c_bus_transfer(fd, transfer);
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
    timeval left = {.tv_sec = static_cast<time_t>(ms / kMsPerSecond),
                    .tv_usec = static_cast<suseconds_t>(ms % kMsPerSecond * kUsPerMs)};
    while (select(0, nullptr, nullptr, nullptr, &left) < 0 && errno == EINTR) {
        // select leaves the remaining time in left
    }
}

port_platform_semaphore port_platform_create_semaphore() {
    auto* semaphore = new (std::nothrow) sem_t;
    if (semaphore != nullptr && sem_init(semaphore, 0, 1) != 0) {
        delete semaphore;
        return nullptr;
    }
    return semaphore;
}

int32_t port_platform_give_semaphore(port_platform_semaphore semaphore) {
    return semaphore == nullptr ? -1 : sem_post(semaphore);
}

int32_t port_platform_take_semaphore(port_platform_semaphore semaphore, uint32_t /*timeout_ms*/) {
    return semaphore == nullptr ? -1 : sem_wait(semaphore);
}

void port_platform_destroy_samphore(port_platform_semaphore* semaphore) {
    if (*semaphore == nullptr) {
        return;
    }
    const int ret = sem_destroy(*semaphore);
    if (ret != 0) {
        printf("port_platform_destroy_samphore fail, ret:%d\n", ret);
    }
    delete *semaphore;
    *semaphore = nullptr;
}

port_platform_mutex port_platform_create_mutex() {
    auto* mutex = new (std::nothrow) pthread_mutex_t;
    if (mutex != nullptr && pthread_mutex_init(mutex, nullptr) != 0) {
        delete mutex;
        return nullptr;
    }
    return mutex;
}

int32_t port_platform_give_mutex(port_platform_mutex mutex) {
    return mutex == nullptr ? -1 : pthread_mutex_unlock(mutex);
}

int32_t port_platform_take_mutex(port_platform_mutex mutex) {
    return mutex == nullptr ? -1 : pthread_mutex_lock(mutex);
}

void port_platform_destroy_mutex(port_platform_mutex* mutex) {
    if (*mutex == nullptr) {
        return;
    }
    const int ret = pthread_mutex_destroy(*mutex);
    if (ret != 0) {
        printf("port_platform_destroy_mutex fail, ret:%d\n", ret);
    }
    delete *mutex;
    *mutex = nullptr;
}
