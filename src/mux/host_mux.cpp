#include "mux/host_mux.h"

#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "mux/host_mux_i2c.h"
#include "mux/host_mux_spi.h"

#include <cstdio>
#include <pthread.h>

namespace {

// Transfers share the bus, opening and closing it excludes them: it is closed only when no thread is inside.
struct State {
    pthread_rwlock_t bus =
        PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP; // a close waits for no new transfer
} state;

struct SharedBus : private NonCopyable {
    SharedBus() : taken(pthread_rwlock_tryrdlock(&state.bus) == 0) {}
    ~SharedBus() {
        if (taken) {
            pthread_rwlock_unlock(&state.bus);
        }
    }

    const bool taken; // not while the bus is being opened or closed
};

struct ExclusiveBus : private NonCopyable {
    ExclusiveBus() {
        pthread_rwlock_wrlock(&state.bus);
    }
    ~ExclusiveBus() {
        pthread_rwlock_unlock(&state.bus);
    }
};

bool is_known(uint32_t bus_type) {
    return bus_type == HOST_MUX_BUS_SPI || bus_type == HOST_MUX_BUS_I2C;
}

uint32_t master_init(uint32_t bus_type, const void* config) {
    return static_cast<uint32_t>(
        bus_type == HOST_MUX_BUS_SPI
            ? host_mux_spi_master_init(static_cast<const host_mux_spi_port_config*>(config))
            : host_mux_i2c_master_init(static_cast<const host_mux_i2c_port_config*>(config)));
}

int32_t master_deinit(const host_mux_handle* handle) {
    return handle->bus_type == HOST_MUX_BUS_SPI ? host_mux_spi_master_deinit(handle->id)
                                                : host_mux_i2c_master_deinit(handle->id);
}

} // namespace

int32_t host_mux_init(host_mux_handle* handle, const void* config) {
    const ExclusiveBus bus;
    if (handle->id != kHostMuxClosed) {
        puts("host_mux_init, mux exist");
        return 0;
    }
    if (!is_known(handle->bus_type)) {
        return -1;
    }
    const uint32_t id = master_init(handle->bus_type, config);
    if (id == kHostMuxClosed) {
        puts("host_mux_init, init fail");
        return -1;
    }
    handle->id = id;
    return 0;
}

int32_t host_mux_deinit(host_mux_handle* handle) {
    const StopRequest stop; // transfers of other threads come back
    const ExclusiveBus bus;
    if (handle->id == kHostMuxClosed) {
        return 0;
    }
    if (!is_known(handle->bus_type) || master_deinit(handle) != 0) {
        return -1;
    }
    handle->id = kHostMuxClosed;
    return 0;
}

int32_t host_mux_rx(host_mux_handle* handle, uint8_t* buffer, uint32_t* length) {
    const SharedBus bus;
    if (!bus.taken || handle->id == kHostMuxClosed) {
        puts("host_mux_rx, mux not open");
        return 1;
    }
    if (!is_known(handle->bus_type)) {
        return 1;
    }
    return handle->bus_type == HOST_MUX_BUS_SPI ? mux_spi_master_demo_receive(handle->id, buffer, length)
                                                : mux_i2c_master_demo_receive(handle->id, buffer, length);
}

int32_t host_mux_tx(host_mux_handle* handle, const uint8_t* data, uint32_t* length) {
    const SharedBus bus;
    if (!bus.taken || handle->id == kHostMuxClosed) {
        puts("host_mux_tx, mux not open");
        return 1;
    }
    if (!is_known(handle->bus_type)) {
        return 1;
    }
    return handle->bus_type == HOST_MUX_BUS_SPI ? mux_spi_master_demo_send(handle->id, data, length)
                                                : mux_i2c_master_demo_send(handle->id, data, length);
}
