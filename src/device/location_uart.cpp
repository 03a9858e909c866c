#include "device/location_uart.h"

#include "base/free_block.h"
#include "config/serial_speed.h"
#include "device/location_uart_escape.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr uint32_t kEscapedBufferMax = 2 * kUartEscapedWriteMax;

// Before closing, a line that is still sending is waited for: half a second in all.
constexpr int kDrainRounds = 50;
constexpr useconds_t kDrainRoundUs = 10'000;

speed_t speed_of(int32_t baud) {
    const SerialSpeed* known = std::find_if(std::begin(kSerialSpeeds), std::end(kSerialSpeeds),
                                            [&](const SerialSpeed& row) { return row.baud == baud; });
    return known == std::end(kSerialSpeeds) ? kSerialSpeeds[0].speed : known->speed;
}

void set_raw(termios* options) {
    options->c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB);
    options->c_cflag |= CS8 | CREAD | CLOCAL;
    options->c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | NOFLSH);
    options->c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL |
                                               IXON | IXANY | IXOFF);
    options->c_oflag &= ~static_cast<tcflag_t>(OPOST | ONLCR);
    options->c_cc[VMIN] = 1;
    options->c_cc[VTIME] = 0;
}

void set_flow_control(termios* options, uint32_t flow_control) {
    switch (flow_control) {
    case UART_FLOW_NONE:
        options->c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
        break;
    case UART_FLOW_SOFTWARE:
        options->c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
        options->c_iflag |= IXON | IXOFF;
        options->c_cc[VSTART] = kUartXon;
        options->c_cc[VSTOP] = kUartXoff;
        break;
    case UART_FLOW_HARDWARE:
        options->c_cflag |= CRTSCTS;
        break;
    default: // as the device had it
        break;
    }
}

int unsent_bytes(int32_t fd) {
    int bytes = 0;
    return ioctl(fd, TIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

// close() itself waits half a minute for a line that is stopped by flow control, so what is left over is
// dropped.
void drain_or_drop(int32_t fd) {
    int unsent = unsent_bytes(fd);
    for (int round = 0; unsent > 0 && round < kDrainRounds; ++round) {
        usleep(kDrainRoundUs);
        unsent = unsent_bytes(fd);
    }
    if (unsent > 0) {
        tcflush(fd, TCOFLUSH);
    }
}

int32_t write_escaped(const uint8_t* data, uint32_t length, int32_t fd) {
    length = std::min(length, kUartEscapedWriteMax);
    const size_t capacity = std::clamp(2 * length, 1U, kEscapedBufferMax);
    const std::unique_ptr<uint8_t, FreeBlock> escaped(static_cast<uint8_t*>(malloc(capacity)));
    if (!escaped) {
        puts("[LOCSERV] ERR: location_uart_write, malloc fail");
        return -1;
    }
    const uint32_t count = location_uart_escape(data, length, escaped.get());
    return static_cast<int32_t>(write(fd, escaped.get(), count));
}

} // namespace

int32_t location_uart_init(UartHandle* handle, const SerialPortConfig* config) {
    if (handle->fd != -1) {
        puts("[LOCSERV] ERR: [UART]location_uart_init, uart exist");
        return 0;
    }
    handle->fd = open(config->path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    handle->flow_control = static_cast<uint32_t>(config->flow_control);
    if (handle->fd < 0) {
        printf("[LOCSERV] ERR: [UART]location_uart_init, open fail:%s\n", config->path);
        return -1;
    }
    if (location_uart_config(handle->fd, config->baud_rate, handle->flow_control) != 0) {
        close(handle->fd);
        handle->fd = -1;
        return -1;
    }
    return 0;
}

int32_t location_uart_config(int32_t fd, int32_t baud, uint32_t flow_control) {
    termios options{};
    if (tcgetattr(fd, &options) != 0) {
        puts("[LOCSERV] ERR: [UART]location_uart_config, get options error");
        return -1;
    }
    cfsetispeed(&options, speed_of(baud));
    cfsetospeed(&options, speed_of(baud));
    if (fcntl(fd, F_SETFL, 0) != 0) {
        puts("[LOCSERV] WRN: [UART]location_uart_config, set blocking fail");
    }
    set_raw(&options);
    set_flow_control(&options, flow_control);
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &options) != 0) {
        puts("[LOCSERV] ERR: [UART]location_uart_config, set uart error");
        return -1;
    }
    return 0;
}

int32_t location_uart_read(uint8_t* buffer, uint32_t length, UartHandle handle, uint32_t* escape_state) {
    if (handle.fd == -1) {
        puts("[LOCSERV] ERR: [UART]location_uart_read fail, uart not open");
        return 0;
    }
    const auto count = static_cast<int32_t>(read(handle.fd, buffer, length));
    if (count <= 0 || handle.flow_control != UART_FLOW_SOFTWARE) {
        return count;
    }
    const uint32_t decoded = location_uart_unescape(buffer, static_cast<uint32_t>(count), escape_state);
    return static_cast<int32_t>(std::min(decoded, length));
}

int32_t location_uart_write(const uint8_t* data, uint32_t length, UartHandle handle) {
    if (handle.fd == -1) {
        puts("[LOCSERV] ERR: [UART]location_uart_write fail, uart not open");
        return 0;
    }
    if (handle.flow_control == UART_FLOW_SOFTWARE) {
        return write_escaped(data, length, handle.fd);
    }
    return static_cast<int32_t>(write(handle.fd, data, length));
}

int32_t location_uart_deinit(UartHandle* handle) {
    if (handle->fd == -1 || handle->fd == -2) { // Kept: both count as closed
        return 0;
    }
    drain_or_drop(handle->fd);
    const int32_t result = close(handle->fd);
    if (result != 0) {
        puts("[LOCSERV] ERR: [UART]location_uart_deinit, fail");
        return result;
    }
    handle->fd = -1;
    return 0;
}
