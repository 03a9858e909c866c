#include "mux/location_serial_port.h"

#include "base/cancel_hold.h"
#include "base/format.h"
#include "config/location_config.h"
#include "device/location_gpio.h"
#include "device/port_platform.h"
#include "mux/host_mux.h"
#include "mux/location_serial_handle.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int32_t kResetLine = 0;
constexpr uint32_t kResetPulseMs = 10;

template <size_t Size> void copy_path(char (&dst)[Size], const SpiPortConfig& settings) {
    if (format(dst, Size, "%s", settings.path) < 0) {
        puts("[LOCSERV] ERR: location_serial_port_gnss_init, get path fail");
    }
}

int32_t open_spi(const SpiPortConfig& settings) {
    host_mux_spi_port_config config{};
    copy_path(config.path, settings);
    config.frequency = static_cast<uint32_t>(settings.frequency);
    config.bit_order = static_cast<uint8_t>(settings.bit_order);
    config.cpha = static_cast<uint8_t>(settings.cpha);
    config.cpol = static_cast<uint8_t>(settings.cpol);
    return host_mux_init(&g_location_serial_handle, &config);
}

// The configuration has one path for the chip, whatever its bus.
int32_t open_i2c(const SpiPortConfig& settings) {
    host_mux_i2c_port_config config{};
    copy_path(config.path, settings);
    return host_mux_init(&g_location_serial_handle, &config);
}

} // namespace

int32_t location_serial_port_gnss_init() {
    const CancelHold hold; // a cancelled opening would leave a descriptor behind
    SpiPortConfig settings{};
    location_config_get_spi(&settings);
    return g_location_serial_handle.bus_type == HOST_MUX_BUS_I2C ? open_i2c(settings) : open_spi(settings);
}

int32_t location_serial_port_gnss_read(uint8_t* buffer, uint32_t capacity) {
    uint32_t length = std::min(capacity, kGnssTransferMax);
    return host_mux_rx(&g_location_serial_handle, buffer, &length) == 1 ? 0 : static_cast<int32_t>(length);
}

int32_t location_serial_port_gnss_write(const uint8_t* data, uint32_t length) {
    uint32_t count = std::min(length, kGnssTransferMax);
    return host_mux_tx(&g_location_serial_handle, data, &count) == 1 ? 0 : static_cast<int32_t>(count);
}

int32_t location_serial_port_gnss_deinit() {
    return host_mux_deinit(&g_location_serial_handle);
}

void location_serial_port_gnss_reset() {
    location_gpio_set_output(kResetLine, 0);
    port_platform_delay_ms(kResetPulseMs);
    location_gpio_set_output(kResetLine, 1);
}
