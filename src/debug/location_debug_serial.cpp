#include "debug/location_debug_serial.h"

#include "config/location_config.h"
#include "device/location_uart.h"

namespace {

// No lock: the tasks run only between init and deinit.
struct DebugSerialState {
    UartHandle handle;
    uint32_t escape_state;
} state{.handle = {.fd = -1, .flow_control = UART_FLOW_NONE}, .escape_state = 0};

} // namespace

int32_t location_debug_serial_init() {
    SerialPortConfig config{};
    location_config_get_debug_port(&config);
    return location_uart_init(&state.handle, &config);
}

int32_t location_debug_serial_read(uint8_t* buffer, uint32_t length) {
    return location_uart_read(buffer, length, state.handle, &state.escape_state);
}

int32_t location_debug_serial_write(const uint8_t* data, uint32_t length) {
    return location_uart_write(data, length, state.handle);
}

int32_t location_debug_serial_deinit() {
    state.escape_state = 0;
    return location_uart_deinit(&state.handle);
}
