#include "debug/location_debug_serial.h"

#include "config/location_config.h"
#include "device/location_uart.h"

#include <mutex>
#include <sys/ioctl.h>
#include <utility>

namespace {

// The lock keeps the descriptor open for location_debug_serial_unsent, which may run beside init and deinit;
// the tasks run between them and need none.
struct DebugSerialState {
    std::mutex lock;
    UartHandle handle;
    uint32_t escape_state;
} state{.lock = {}, .handle = {.fd = -1, .flow_control = UART_FLOW_NONE}, .escape_state = 0};

} // namespace

int32_t location_debug_serial_init() {
    SerialPortConfig config{};
    location_config_get_debug_port(&config);
    const std::lock_guard guard(state.lock);
    return location_uart_init(&state.handle, &config);
}

int32_t location_debug_serial_read(uint8_t* buffer, uint32_t length) {
    return location_uart_read(buffer, length, state.handle, &state.escape_state);
}

int32_t location_debug_serial_write(const uint8_t* data, uint32_t length) {
    return location_uart_write(data, length, state.handle);
}

int32_t location_debug_serial_deinit() {
    const std::lock_guard guard(state.lock);
    state.escape_state = 0;
    return location_uart_deinit(&state.handle);
}

int32_t location_debug_serial_unsent() {
    const std::lock_guard guard(state.lock);
    int32_t bytes = 0;
    if (state.handle.fd == -1 || ioctl(state.handle.fd, TIOCOUTQ, &bytes) != 0) {
        return 0;
    }
    return bytes;
}
