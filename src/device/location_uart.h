// A tty in raw mode: open with the configured speed and flow control, read and write bytes, close.
#ifndef TAVOR_LOCATION_UART_H
#define TAVOR_LOCATION_UART_H

#include "config/location_config.h"

#include <cstdint>

enum location_uart_flow_control : uint32_t {
    UART_FLOW_NONE = 0,
    UART_FLOW_SOFTWARE = 1, // XON/XOFF; data is escaped in both directions
    UART_FLOW_HARDWARE = 2, // RTS/CTS
};

// Most bytes that one escaped write carries; longer data is cut.
inline constexpr uint32_t kUartEscapedWriteMax = 7680;

struct UartHandle {
    int32_t fd; // -1 when closed
    uint32_t flow_control;
};

// Opens the tty of config (its fd is -1 before). Returns 0, also when it is open already, or -1 with the fd
// left at -1.
int32_t location_uart_init(UartHandle* handle, const SerialPortConfig* config);

// Makes fd a blocking raw 8N1 line of baud bit/s (115200 for a rate that isn't known). Returns 0 or -1.
int32_t location_uart_config(int32_t fd, int32_t baud, uint32_t flow_control);

// Waits for bytes and reads up to length of them; *escape_state belongs to the stream and starts at 0.
// Returns the bytes delivered, 0 when the line is closed or gave nothing, a negative value when reading
// fails. A cancellation point.
int32_t location_uart_read(uint8_t* buffer, uint32_t length, UartHandle handle, uint32_t* escape_state);

// Writes length bytes, waiting while the line takes none. Returns the bytes written, escapes counted; 0 when
// the line is closed, -1 when writing or an allocation fails. A cancellation point.
int32_t location_uart_write(const uint8_t* data, uint32_t length, UartHandle handle);

// Closes the tty; what a stopped line does not take within a moment is dropped. Returns 0 or the failing
// result of close.
int32_t location_uart_deinit(UartHandle* handle);

#endif
