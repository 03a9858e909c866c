// The remote variant of the backend: every call on a device node is a round trip to the board server.
#include "interpose/remote.h"

#include "devices/board_spi.h"
#include "interpose/backend.h"
#include "interpose/wire.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/spi/spidev.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kMostDescriptors = 4096;

// Zero-initialised, so that calls before any constructor find it usable.
struct RemoteState {
    std::array<std::atomic<bool>, kMostDescriptors> owned;
    sockaddr_un server;
} state;

// On the device these calls are no cancellation points, or at their entry only: a round trip is never cut in
// two.
struct CancelHold {
    CancelHold() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    }
    ~CancelHold() {
        pthread_setcancelstate(previous, nullptr);
    }
    CancelHold(const CancelHold&) = delete;
    CancelHold& operator=(const CancelHold&) = delete;

    int previous = 0;
};

int fail_with(int error) {
    errno = error;
    return -1;
}

struct Buffer {
    void* data;
    size_t size;
};

// Sends a request and takes its reply; reply_to gets the reply's payload. Returns the result of the call.
ssize_t round_trip(int fd, WireOperation operation, uint32_t number, const iovec* payload, int pieces,
                   Buffer reply_to) {
    const CancelHold hold;
    WireRequest request = {operation, number, 0};
    std::array<iovec, 4> out = {{{&request, sizeof request}}};
    for (int i = 0; i < pieces; ++i) {
        out[static_cast<size_t>(i) + 1] = payload[i];
        request.length += static_cast<uint32_t>(payload[i].iov_len);
    }
    msghdr message = {};
    message.msg_iov = out.data();
    message.msg_iovlen = static_cast<size_t>(pieces) + 1;
    if (request.length > kWirePayloadMax || sendmsg(fd, &message, MSG_NOSIGNAL) < 0) {
        return fail_with(EIO);
    }
    WireReply reply = {};
    std::array<iovec, 2> in = {{{&reply, sizeof reply}, {reply_to.data, reply_to.size}}};
    message = {};
    message.msg_iov = in.data();
    message.msg_iovlen = in.size();
    ssize_t received = 0;
    do {
        received = recvmsg(fd, &message, 0);
    } while (received < 0 && errno == EINTR);
    if (received < static_cast<ssize_t>(sizeof reply)) {
        return fail_with(EIO); // the board is gone: as if the device were unplugged
    }
    return reply.result < 0 ? fail_with(reply.error) : reply.result;
}

int connect_server() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (fd >= kMostDescriptors ||
        connect(fd, reinterpret_cast<const sockaddr*>(&state.server), sizeof state.server) != 0) {
        syscall(SYS_close, fd);
        return fail_with(ENOENT);
    }
    return fd;
}

iovec path_piece(const char* path) {
    return {const_cast<char*>(path), std::strlen(path)};
}

int spi_message(int fd, const spi_ioc_transfer* transfers, size_t count) {
    if (count > kWirePartsMax) {
        return fail_with(EMSGSIZE);
    }
    std::array<WirePart, kWirePartsMax> parts = {};
    std::vector<uint8_t> sent;
    size_t wanted = 0;
    for (size_t i = 0; i < count; ++i) {
        const spi_ioc_transfer& transfer = transfers[i];
        const auto* tx =
            reinterpret_cast<const uint8_t*>(transfer.tx_buf); // NOLINT(performance-no-int-to-ptr)
        parts[i] = {transfer.len,
                    (tx != nullptr ? kWirePartSends : 0) | (transfer.rx_buf != 0 ? kWirePartReceives : 0)};
        if (transfer.len > kWirePayloadMax) {
            return fail_with(EMSGSIZE);
        }
        if (tx != nullptr) {
            sent.insert(sent.end(), tx, tx + transfer.len);
        }
        wanted += transfer.rx_buf != 0 ? transfer.len : 0;
    }
    std::vector<uint8_t> answer(wanted);
    const std::array<iovec, 2> payload = {
        {{parts.data(), count * sizeof parts[0]}, {sent.data(), sent.size()}}};
    const ssize_t result = round_trip(fd, WIRE_SPI_MESSAGE, static_cast<uint32_t>(count), payload.data(), 2,
                                      {answer.data(), answer.size()});
    if (result < 0) {
        return -1;
    }
    const uint8_t* at = answer.data();
    for (size_t i = 0; i < count; ++i) {
        if (transfers[i].rx_buf != 0) {
            std::memcpy(reinterpret_cast<void*>(transfers[i].rx_buf), at,
                        transfers[i].len); // NOLINT(performance-no-int-to-ptr)
            at += transfers[i].len;
        }
    }
    return static_cast<int>(result);
}

int spi_set(int fd, BoardSpiSetting setting, uint32_t value) {
    const iovec payload = {&value, sizeof value};
    return static_cast<int>(
        round_trip(fd, WIRE_SPI_SET, static_cast<uint32_t>(setting), &payload, 1, {nullptr, 0}));
}

template <typename Value> int spi_get(int fd, BoardSpiSetting setting, void* argument) {
    uint32_t value = 0;
    if (round_trip(fd, WIRE_SPI_GET, static_cast<uint32_t>(setting), nullptr, 0, {&value, sizeof value}) <
        0) {
        return -1;
    }
    *static_cast<Value*>(argument) = static_cast<Value>(value);
    return 0;
}

bool is_spi_message(unsigned long request) {
    return _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 && _IOC_DIR(request) == _IOC_WRITE &&
           _IOC_SIZE(request) % sizeof(spi_ioc_transfer) == 0;
}

} // namespace

bool remote_set_server(const char* directory) {
    state.server = {};
    state.server.sun_family = AF_UNIX;
    const int length =
        snprintf(state.server.sun_path, sizeof state.server.sun_path, "%s/%s", directory, kWireSocketName);
    return length > 0 && static_cast<size_t>(length) < sizeof state.server.sun_path;
}

int backend_open(const char* path, int flags) {
    const int fd = connect_server();
    if (fd < 0) {
        return -1;
    }
    const iovec payload = path_piece(path);
    if (round_trip(fd, WIRE_OPEN, static_cast<uint32_t>(flags), &payload, 1, {nullptr, 0}) < 0) {
        const int error = errno;
        syscall(SYS_close, fd);
        return fail_with(error);
    }
    state.owned[static_cast<size_t>(fd)] = true;
    return fd;
}

int backend_close(int fd) {
    state.owned[static_cast<size_t>(fd)] = false;
    return static_cast<int>(syscall(SYS_close, fd));
}

ssize_t backend_read(int fd, void* buffer, size_t length) {
    pthread_testcancel();
    const size_t size = std::min<size_t>(length, kWirePayloadMax);
    return round_trip(fd, WIRE_READ, static_cast<uint32_t>(size), nullptr, 0, {buffer, size});
}

ssize_t backend_write(int fd, const void* data, size_t length) {
    pthread_testcancel();
    const iovec payload = {const_cast<void*>(data), std::min<size_t>(length, kWirePayloadMax)};
    return round_trip(fd, WIRE_WRITE, 0, &payload, 1, {nullptr, 0});
}

int backend_ioctl(int fd, unsigned long request, void* argument) {
    if (is_spi_message(request)) {
        return spi_message(fd, static_cast<const spi_ioc_transfer*>(argument),
                           _IOC_SIZE(request) / sizeof(spi_ioc_transfer));
    }
    switch (request) {
    case SPI_IOC_WR_MODE:
        return spi_set(fd, BoardSpiSetting::mode, *static_cast<const uint8_t*>(argument));
    case SPI_IOC_WR_MODE32:
        return spi_set(fd, BoardSpiSetting::mode, *static_cast<const uint32_t*>(argument));
    case SPI_IOC_WR_LSB_FIRST:
        return spi_set(fd, BoardSpiSetting::lsb_first, *static_cast<const uint8_t*>(argument));
    case SPI_IOC_WR_BITS_PER_WORD:
        return spi_set(fd, BoardSpiSetting::bits_per_word, *static_cast<const uint8_t*>(argument));
    case SPI_IOC_WR_MAX_SPEED_HZ:
        return spi_set(fd, BoardSpiSetting::speed_hz, *static_cast<const uint32_t*>(argument));
    case SPI_IOC_RD_MODE:
        return spi_get<uint8_t>(fd, BoardSpiSetting::mode, argument);
    case SPI_IOC_RD_MODE32:
        return spi_get<uint32_t>(fd, BoardSpiSetting::mode, argument);
    case SPI_IOC_RD_LSB_FIRST:
        return spi_get<uint8_t>(fd, BoardSpiSetting::lsb_first, argument);
    case SPI_IOC_RD_BITS_PER_WORD:
        return spi_get<uint8_t>(fd, BoardSpiSetting::bits_per_word, argument);
    case SPI_IOC_RD_MAX_SPEED_HZ:
        return spi_get<uint32_t>(fd, BoardSpiSetting::speed_hz, argument);
    default:
        return fail_with(ENOTTY);
    }
}

int backend_access(const char* path) {
    const int fd = connect_server();
    if (fd < 0) {
        return -1;
    }
    const iovec payload = path_piece(path);
    const auto result = static_cast<int>(round_trip(fd, WIRE_ACCESS, 0, &payload, 1, {nullptr, 0}));
    const int error = errno;
    syscall(SYS_close, fd);
    return result < 0 ? fail_with(error) : 0;
}

bool backend_owns(int fd) {
    return fd >= 0 && fd < kMostDescriptors &&
           state.owned[static_cast<size_t>(fd)].load(std::memory_order_relaxed);
}
