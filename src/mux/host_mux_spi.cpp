#include "mux/host_mux_spi.h"

#include "base/cancel_hold.h"
#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "mux/host_mux_lock.h"
#include "mux/host_mux_spi_slave.h"
#include "mux/host_mux_spi_step.h"

#include <algorithm>
#include <cstdio>

port_platform_mutex g_host_mux_spi_master_mutex = nullptr;
port_platform_semaphore g_host_mux_spi_master_wait_send_done_xSemaphore = nullptr;
port_platform_semaphore g_host_mux_spi_master_wait_receive_done_xSemaphore = nullptr;

namespace {

constexpr uint32_t kNoTimeout = 0xFFFFFFFFu;

// One receive or send. Gives mutex and power count back when it is cancelled or stopped on the way.
struct Operation : private NonCopyable {
    explicit Operation(uint32_t bus_id) : bus(bus_id) {}
    ~Operation() {
        if (counted) {
            host_mux_spi_power_counter_drop();
        }
        if (locked) {
            port_platform_give_mutex(g_host_mux_spi_master_mutex);
        }
    }

    const CancelHold hold; // first: cancellation is allowed again when all else is given back
    const uint32_t bus;
    bool locked = false;  // this thread holds the mutex
    bool counted = false; // a power-on request of this operation is open
};

bool take(Operation& operation) {
    operation.locked = host_mux_take(g_host_mux_spi_master_mutex);
    return operation.locked;
}

// Lets the other direction in.
bool give_and_take(Operation& operation) {
    port_platform_give_mutex(g_host_mux_spi_master_mutex);
    operation.locked = false;
    return take(operation);
}

// A slave that could not be switched on fails the next step; while a stop is pending there is none.
bool start(Operation& operation) {
    if (!take(operation)) {
        return false;
    }
    operation.counted = host_mux_spi_power_on(operation.bus) == 0;
    return give_and_take(operation) && (operation.counted || !stop_request_pending());
}

// A failed power-off leaves the request open and the slave on for the next operation; while a stop is pending
// the request is dropped, because there will be no next one.
void finish(Operation& operation) {
    if (!operation.locked) {
        return;
    }
    const bool still_open = portable_HAL_SPI_POWER_OFF(operation.bus) != 0;
    operation.counted = operation.counted && still_open && stop_request_pending();
}

bool receive(Operation& operation, uint8_t* buffer, uint32_t* length) {
    uint32_t count = 0;
    if (!host_mux_spi_receive_length(operation.bus, std::min(*length, kHostMuxSpiDataMax), &count)) {
        return false;
    }
    if (count > 0) {
        const bool moved = give_and_take(operation) &&
                           host_mux_spi_receive_data(operation.bus, buffer, count) &&
                           give_and_take(operation);
        if (!moved) {
            return false;
        }
    }
    *length = count;
    return true;
}

bool send(Operation& operation, const uint8_t* data, uint32_t* length) {
    uint32_t count = 0;
    if (!host_mux_spi_send_length(operation.bus, std::min(*length, kHostMuxSpiDataMax), &count)) {
        return false;
    }
    if (count > 0) {
        const bool moved = give_and_take(operation) && host_mux_spi_send_data(operation.bus, data, count) &&
                           give_and_take(operation);
        if (!moved) {
            return false;
        }
    }
    *length = count;
    return true;
}

bool create_semaphore(port_platform_semaphore* semaphore, const char* failed) {
    if (*semaphore == nullptr) {
        *semaphore = port_platform_create_semaphore();
    }
    if (*semaphore == nullptr) {
        puts(failed);
        return false;
    }
    return true;
}

bool create_mutex() {
    if (g_host_mux_spi_master_mutex == nullptr) {
        g_host_mux_spi_master_mutex = port_platform_create_mutex();
    }
    if (g_host_mux_spi_master_mutex == nullptr) {
        puts("g_host_mux_spi_master_mutex create error\r");
        return false;
    }
    return true;
}

} // namespace

int32_t host_mux_spi_master_init(const host_mux_spi_port_config* config) {
    if (!create_mutex() ||
        !create_semaphore(&g_host_mux_spi_master_wait_send_done_xSemaphore,
                          "g_host_mux_spi_master_wait_send_done_xSemaphore create error\r") ||
        !create_semaphore(&g_host_mux_spi_master_wait_receive_done_xSemaphore,
                          "g_host_mux_spi_master_wait_receive_done_xSemaphore create error\r")) {
        return -1;
    }
    host_mux_spi_longest_read_reset();
    return port_platform_bus_init(HOST_MUX_BUS_SPI, config);
}

int32_t host_mux_spi_master_deinit(uint32_t bus) {
    if (port_platform_bus_deinit(HOST_MUX_BUS_SPI, static_cast<int32_t>(bus)) < 0) {
        puts("portable_HAL_SPI_MASTER_DEINIT: bus de-init err\r");
        return 1;
    }
    port_platform_destroy_mutex(&g_host_mux_spi_master_mutex);
    port_platform_destroy_samphore(&g_host_mux_spi_master_wait_send_done_xSemaphore);
    port_platform_destroy_samphore(&g_host_mux_spi_master_wait_receive_done_xSemaphore);
    host_mux_spi_power_counter_reset();
    return 0;
}

int32_t mux_spi_master_demo_receive(uint32_t bus, uint8_t* buffer, uint32_t* length) {
    Operation operation(bus);
    const bool done = start(operation) && receive(operation, buffer, length);
    finish(operation);
    return done ? 0 : 1;
}

int32_t mux_spi_master_demo_send(uint32_t bus, const uint8_t* data, uint32_t* length) {
    Operation operation(bus);
    const bool done = start(operation) && send(operation, data, length);
    finish(operation);
    return done ? 0 : 1;
}

// Kept: the texts of both waits say error when the wait succeeded.
void portable_HOST_MUX_SPI_MASTER_wait_for_send_done() {
    if (port_platform_take_semaphore(g_host_mux_spi_master_wait_send_done_xSemaphore, kNoTimeout) == 0) {
        puts("portable_HOST_MUX_SPI_MASTER_wait_for_send_done: error!!!");
    }
}

void portable_HOST_MUX_SPI_MASTER_send_done() {
    port_platform_give_semaphore(g_host_mux_spi_master_wait_send_done_xSemaphore);
}

void portable_HOST_MUX_SPI_MASTER_wait_for_receive_done() {
    if (port_platform_take_semaphore(g_host_mux_spi_master_wait_receive_done_xSemaphore, kNoTimeout) == 0) {
        puts("portable_HOST_MUX_SPI_MASTER_wait_for_receive_done: error!!!");
    }
}

void portable_HOST_MUX_SPI_MASTER_receive_done() {
    port_platform_give_semaphore(g_host_mux_spi_master_wait_receive_done_xSemaphore);
}
