// The remote variant of the backend: every call on a device node is a round trip to the board server. The
// replaced functions hold cancellation off around these calls.
#include "interpose/remote.h"

#include "devices/board_devices.h"
#include "interpose/backend.h"
#include "interpose/node_ioctl.h"
#include "interpose/wire.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kMostDescriptors = 4096;

// Usable before any constructor has run.
struct RemoteState {
    std::array<std::atomic<bool>, kMostDescriptors> owned = {};
    sockaddr_un server = {};
};
constinit RemoteState state;

struct Piece {
    void* data;
    size_t size;
};

struct Request {
    WireOperation operation;
    uint32_t number = 0;
    Piece first = {nullptr, 0}; // the payload, in two pieces
    Piece second = {nullptr, 0};
};

int fail_with(int error) {
    errno = error;
    return -1;
}

void close_quietly(int fd) {
    const int error = errno;
    syscall(SYS_close, fd);
    errno = error;
}

bool send_request(int fd, const Request& request) {
    const size_t length = request.first.size + request.second.size;
    WireRequest header = {request.operation, request.number, static_cast<uint32_t>(length)};
    std::array<iovec, 3> pieces = {{{&header, sizeof header},
                                    {request.first.data, request.first.size},
                                    {request.second.data, request.second.size}}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    ssize_t sent = 0;
    do {
        sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

bool receive_reply(int fd, WireReply* reply, Piece payload) {
    std::array<iovec, 2> pieces = {{{reply, sizeof *reply}, {payload.data, payload.size}}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    ssize_t received = 0;
    do {
        received = recvmsg(fd, &message, 0);
    } while (received < 0 && errno == EINTR);
    return received >= static_cast<ssize_t>(sizeof *reply) && (message.msg_flags & MSG_TRUNC) == 0;
}

// Returns the result of the call; what comes back with it is put into the reply's place.
ssize_t round_trip(int fd, const Request& request, Piece reply_place) {
    if (request.first.size + request.second.size > kWirePayloadMax) {
        return fail_with(EMSGSIZE);
    }
    WireReply reply = {};
    if (!send_request(fd, request) || !receive_reply(fd, &reply, reply_place)) {
        return fail_with(EIO); // the board is gone: as if the device were unplugged
    }
    return reply.result < 0 ? fail_with(reply.error) : reply.result;
}

int connect_server() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (fd >= kMostDescriptors) {
        close_quietly(fd);
        return fail_with(EMFILE);
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&state.server), sizeof state.server) != 0) {
        close_quietly(fd);
        return fail_with(ENOENT); // no board, no device node
    }
    return fd;
}

Piece text_piece(const char* text) {
    return {const_cast<char*>(text), strlen(text)};
}

// What an SPI message looks like on its way to the server.
struct SpiMessage {
    std::vector<WirePart> parts;
    std::vector<uint8_t> sent;
    std::vector<uint8_t> received;
};

// Returns false when it is too long for one request and its reply.
bool gather(SpiMessage& message, const spi_ioc_transfer* transfers, size_t count) {
    size_t total = count * sizeof(WirePart);
    for (size_t i = 0; i < count; ++i) {
        total += transfers[i].len;
    }
    if (total > kWirePayloadMax) {
        return false;
    }
    size_t wanted = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t* tx = node_address(transfers[i].tx_buf);
        const bool receives = transfers[i].rx_buf != 0;
        const int flags = (tx != nullptr ? kWirePartSends : 0) | (receives ? kWirePartReceives : 0);
        message.parts.push_back({transfers[i].len, static_cast<uint8_t>(flags), transfers[i].bits_per_word,
                                 transfers[i].tx_nbits, transfers[i].rx_nbits});
        if (tx != nullptr) {
            message.sent.insert(message.sent.end(), tx, tx + transfers[i].len);
        }
        wanted += receives ? transfers[i].len : 0;
    }
    message.received.resize(wanted);
    return true;
}

void scatter(const SpiMessage& message, const spi_ioc_transfer* transfers, size_t count) {
    const uint8_t* next = message.received.data();
    for (size_t i = 0; i < count; ++i) {
        if (transfers[i].rx_buf != 0 && transfers[i].len != 0) {
            std::copy_n(next, transfers[i].len, node_address(transfers[i].rx_buf));
            next += transfers[i].len;
        }
    }
}

int spi_message(int fd, const spi_ioc_transfer* transfers, size_t count) {
    SpiMessage message;
    if (!gather(message, transfers, count)) {
        return fail_with(EMSGSIZE);
    }
    const Request request = {WIRE_SPI_MESSAGE,
                             static_cast<uint32_t>(count),
                             {message.parts.data(), count * sizeof(WirePart)},
                             {message.sent.data(), message.sent.size()}};
    const auto result =
        static_cast<int>(round_trip(fd, request, {message.received.data(), message.received.size()}));
    if (result >= 0) {
        scatter(message, transfers, count);
    }
    return result;
}

// A descriptor as a node whose requests go to the server.
struct RemoteNode {
    int spi_message(const spi_ioc_transfer* transfers, size_t count) const {
        return ::spi_message(fd, transfers, count);
    }
    int spi_set(BoardSpiSetting setting, uint32_t value) const {
        return ask(WIRE_SPI_SET, static_cast<uint32_t>(setting), {&value, sizeof value}, {nullptr, 0});
    }
    int spi_get(BoardSpiSetting setting, uint32_t& value) const {
        return ask(WIRE_SPI_GET, static_cast<uint32_t>(setting), {nullptr, 0}, {&value, sizeof value});
    }
    int i2c_select(uint64_t address) const {
        const auto number = static_cast<uint32_t>(std::min<uint64_t>(address, UINT32_MAX));
        return ask(WIRE_I2C_SLAVE, number, {nullptr, 0}, {nullptr, 0});
    }
    int i2c_set(BoardI2cSetting setting, uint64_t value) const {
        return ask(WIRE_I2C_SET, static_cast<uint32_t>(setting), {&value, sizeof value}, {nullptr, 0});
    }
    int i2c_message(const i2c_msg& message) const {
        const Piece bytes = {message.buf, message.len};
        if ((message.flags & I2C_M_RD) == 0) {
            return ask(WIRE_I2C_WRITE, message.addr, bytes, {nullptr, 0});
        }
        const uint32_t number = message.addr | (uint32_t{message.len} << kWireLengthShift);
        return ask(WIRE_I2C_READ, number, {nullptr, 0}, bytes);
    }
    int ask(WireOperation operation, uint32_t number, Piece sent, Piece received) const {
        return static_cast<int>(round_trip(fd, {operation, number, sent, {nullptr, 0}}, received));
    }

    int fd;
};

} // namespace

bool remote_set_server(const char* directory) {
    state.server = {};
    state.server.sun_family = AF_UNIX;
    const int length =
        snprintf(state.server.sun_path, sizeof state.server.sun_path, "%s/%s", directory, kWireSocketName);
    return length > 0 && static_cast<size_t>(length) < sizeof state.server.sun_path;
}

void remote_take_redirections() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        sockaddr_un peer = {};
        socklen_t length = sizeof peer;
        state.owned[static_cast<size_t>(fd)] =
            getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            strncmp(peer.sun_path, state.server.sun_path, sizeof peer.sun_path) == 0;
    }
}

int backend_open(const char* path, int flags) {
    const int fd = connect_server();
    if (fd < 0) {
        return -1;
    }
    const Request request = {WIRE_OPEN, static_cast<uint32_t>(flags), text_piece(path), {nullptr, 0}};
    if (round_trip(fd, request, {nullptr, 0}) < 0) {
        close_quietly(fd);
        return -1;
    }
    state.owned[static_cast<size_t>(fd)] = true;
    return fd;
}

int backend_close(int fd) {
    state.owned[static_cast<size_t>(fd)] = false; // first: the number may be another's right after the close
    return static_cast<int>(syscall(SYS_close, fd));
}

ssize_t backend_read(int fd, void* buffer, size_t length) {
    const size_t size = std::min<size_t>(length, kWirePayloadMax);
    return round_trip(fd, {WIRE_READ, static_cast<uint32_t>(size)}, {buffer, size});
}

ssize_t backend_write(int fd, const void* data, size_t length) {
    const size_t size = std::min<size_t>(length, kWirePayloadMax);
    return round_trip(fd, {WIRE_WRITE, 0, {const_cast<void*>(data), size}}, {nullptr, 0});
}

int backend_ioctl(int fd, unsigned long request, void* argument) {
    const RemoteNode node = {fd};
    return node_ioctl(node, request, argument);
}

off_t backend_seek(int fd, off_t offset, int whence) {
    int64_t from = offset;
    return round_trip(fd, {WIRE_SEEK, static_cast<uint32_t>(whence), {&from, sizeof from}}, {nullptr, 0});
}

int backend_access(const char* path) {
    const int fd = connect_server();
    if (fd < 0) {
        return -1;
    }
    const Request request = {WIRE_ACCESS, 0, text_piece(path), {nullptr, 0}};
    const auto result = static_cast<int>(round_trip(fd, request, {nullptr, 0}));
    close_quietly(fd);
    return result;
}

void remote_copied(int fd, int copy) {
    if (copy < kMostDescriptors) {
        state.owned[static_cast<size_t>(copy)] = backend_owns(fd);
    }
}

bool backend_owns(int fd) {
    return fd >= 0 && fd < kMostDescriptors &&
           state.owned[static_cast<size_t>(fd)].load(std::memory_order_relaxed);
}
