#include "server/server.h"

#include "interpose/wire.h"
#include "server/board_socket.h"
#include "server/flash_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kBacklog = 64;
constexpr int kEventsAtOnce = 16;
constexpr size_t kMostConnections = 256;  // far below the limit of descriptors
constexpr int kTerminationLimitMs = 5000; // for a child, from SIGTERM to SIGKILL

using Bytes = std::vector<uint8_t>;

// One request as it came, checked for size only.
struct Request {
    WireRequest header;
    const uint8_t* payload;
};

struct Reply {
    WireReply header = {};
    Bytes payload;
};

std::string text_of(const Request& request) {
    return {reinterpret_cast<const char*>(request.payload), request.header.length};
}

void set_result(Reply& reply, ssize_t result) {
    reply.header.result = static_cast<int32_t>(result);
    reply.header.error = result < 0 ? errno : 0;
}

void refuse(Reply& reply, int error) {
    reply.header = {-1, error, 0};
    reply.payload.clear();
}

void answer_read(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    reply.payload.resize(std::min(request.header.number, kWirePayloadMax));
    set_result(reply, board_node_read(board, connection.file, reply.payload.data(), reply.payload.size()));
    reply.payload.resize(static_cast<size_t>(std::max(reply.header.result, 0)));
}

// The parts of a message with their bytes; false when they contradict the payload's size.
bool take_parts(const Request& request, std::vector<BoardTransfer>& parts, Bytes& received) {
    const size_t count = request.header.number;
    if (count > kWirePartsMax || request.header.length < count * sizeof(WirePart)) {
        return false;
    }
    std::vector<WirePart> wire(count);
    if (count > 0) { // an empty vector has no bytes to point at
        memcpy(wire.data(), request.payload, count * sizeof(WirePart));
    }
    size_t sends = 0;
    size_t receives = 0;
    for (size_t i = 0; i < count; ++i) {
        sends += (wire[i].flags & kWirePartSends) != 0 ? wire[i].length : 0;
        receives += (wire[i].flags & kWirePartReceives) != 0 ? wire[i].length : 0;
    }
    if (sends != request.header.length - count * sizeof(WirePart) || receives > kWirePayloadMax) {
        return false;
    }
    received.resize(receives);
    const uint8_t* tx = request.payload + count * sizeof(WirePart);
    uint8_t* rx = received.data();
    for (size_t i = 0; i < count; ++i) {
        const bool part_sends = (wire[i].flags & kWirePartSends) != 0;
        const bool part_receives = (wire[i].flags & kWirePartReceives) != 0;
        parts.push_back({part_sends ? tx : nullptr, part_receives ? rx : nullptr, wire[i].length,
                         wire[i].bits_per_word, wire[i].tx_lines, wire[i].rx_lines});
        tx += part_sends ? wire[i].length : 0;
        rx += part_receives ? wire[i].length : 0;
    }
    return true;
}

void answer_spi_message(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    std::vector<BoardTransfer> parts;
    if (!take_parts(request, parts, reply.payload)) {
        return refuse(reply, EINVAL);
    }
    set_result(reply, board_spi_message(board, connection.file, parts.data(), parts.size()));
}

bool is_setting(uint32_t number) {
    return number <= static_cast<uint32_t>(BoardSpiSetting::speed_hz);
}

void answer_spi_set(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    uint32_t value = 0;
    if (request.header.length != sizeof value || !is_setting(request.header.number)) {
        return refuse(reply, EINVAL);
    }
    memcpy(&value, request.payload, sizeof value);
    set_result(reply, board_spi_set(board, connection.file,
                                    static_cast<BoardSpiSetting>(request.header.number), value));
}

void answer_spi_get(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    uint32_t value = 0;
    if (!is_setting(request.header.number)) {
        return refuse(reply, EINVAL);
    }
    set_result(reply, board_spi_get(board, connection.file,
                                    static_cast<BoardSpiSetting>(request.header.number), value));
    reply.payload.resize(sizeof value);
    memcpy(reply.payload.data(), &value, sizeof value);
}

void answer_seek(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    int64_t offset = 0;
    if (request.header.length != sizeof offset) {
        return refuse(reply, EINVAL);
    }
    memcpy(&offset, request.payload, sizeof offset);
    const off_t now =
        board_node_seek(board, connection.file, offset, static_cast<int>(request.header.number));
    set_result(reply, static_cast<ssize_t>(now));
}

void answer_i2c_set(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    uint64_t value = 0;
    if (request.header.length != sizeof value ||
        request.header.number > static_cast<uint32_t>(BoardI2cSetting::limit)) {
        return refuse(reply, EINVAL);
    }
    memcpy(&value, request.payload, sizeof value);
    set_result(reply, board_i2c_set(board, connection.file,
                                    static_cast<BoardI2cSetting>(request.header.number), value));
}

void answer_i2c_message(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    BoardI2cMessage message = {static_cast<uint8_t>(request.header.number), request.payload, nullptr,
                               request.header.length};
    if (request.header.operation == WIRE_I2C_READ) {
        message.length = request.header.number >> kWireLengthShift;
        reply.payload.resize(message.length);
        message.rx = reply.payload.data();
    }
    set_result(reply, board_i2c_message(board, connection.file, message));
    if (reply.header.result < 0) {
        reply.payload.clear();
    }
}

void answer_control(BoardServer& server, const Request& request, Reply& reply) {
    const std::string text = control_answer(server.target, text_of(request));
    if (text.size() > kWirePayloadMax) {
        return refuse(reply, EMSGSIZE);
    }
    reply.payload.assign(text.begin(), text.end());
}

void answer_open(Board& board, ServerConnection& connection, const Request& request, Reply& reply) {
    if (connection.open) {
        return refuse(reply, EINVAL);
    }
    set_result(reply,
               board_open(board, connection.file, text_of(request), static_cast<int>(request.header.number)));
    connection.open = reply.header.result >= 0;
}

void answer_node(BoardServer& server, ServerConnection& connection, const Request& request, Reply& reply) {
    if (!connection.open) {
        return refuse(reply, EBADF);
    }
    switch (request.header.operation) {
    case WIRE_READ:
        return answer_read(*server.target.board, connection, request, reply);
    case WIRE_WRITE:
        return set_result(reply, board_node_write(*server.target.board, connection.file, request.payload,
                                                  request.header.length));
    case WIRE_SPI_MESSAGE:
        return answer_spi_message(*server.target.board, connection, request, reply);
    case WIRE_SPI_SET:
        return answer_spi_set(*server.target.board, connection, request, reply);
    case WIRE_SPI_GET:
        return answer_spi_get(*server.target.board, connection, request, reply);
    case WIRE_I2C_SLAVE:
        return set_result(reply,
                          board_i2c_select(*server.target.board, connection.file, request.header.number));
    case WIRE_SEEK:
        return answer_seek(*server.target.board, connection, request, reply);
    case WIRE_I2C_SET:
        return answer_i2c_set(*server.target.board, connection, request, reply);
    case WIRE_I2C_READ:
    case WIRE_I2C_WRITE:
        return answer_i2c_message(*server.target.board, connection, request, reply);
    default:
        return refuse(reply, ENOSYS);
    }
}

void answer(BoardServer& server, ServerConnection& connection, const Request& request, Reply& reply) {
    switch (request.header.operation) {
    case WIRE_OPEN:
        return answer_open(*server.target.board, connection, request, reply);
    case WIRE_ACCESS:
        return set_result(reply, board_access(*server.target.board, text_of(request)));
    case WIRE_CONTROL:
        return answer_control(server, request, reply);
    default:
        return answer_node(server, connection, request, reply);
    }
}

// Both ends wait for each other, so a full socket means a peer that does not keep to the protocol.
bool send_reply(int fd, Reply& reply) {
    reply.header.length = static_cast<uint32_t>(reply.payload.size());
    std::array<iovec, 2> pieces = {
        {{&reply.header, sizeof reply.header}, {reply.payload.data(), reply.payload.size()}}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    return sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

void drop(BoardServer& server, int fd) {
    ServerConnection& connection = server.connections[fd];
    if (connection.open) {
        board_close(*server.target.board, connection.file);
    }
    server.connections.erase(fd);
    close(fd);
}

// Before the program learns that its block is written.
void keep_flash(BoardServer& server) {
    const std::string problem = flash_file_keep(*server.target.board, server.directory);
    if (!problem.empty()) {
        fprintf(stderr, "tavor-board: %s\n", problem.c_str());
    }
}

void serve(BoardServer& server, int fd) {
    static Bytes buffer(sizeof(WireRequest) + kWirePayloadMax);
    const ssize_t size = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    Request request = {{}, buffer.data() + sizeof(WireRequest)};
    if (size >= static_cast<ssize_t>(sizeof request.header) && size <= static_cast<ssize_t>(buffer.size())) {
        memcpy(&request.header, buffer.data(), sizeof request.header);
        Reply reply;
        if (request.header.length == static_cast<size_t>(size) - sizeof request.header) {
            answer(server, server.connections[fd], request, reply);
            keep_flash(server);
            if (send_reply(fd, reply)) {
                return;
            }
        }
    }
    drop(server, fd); // closed, or no request of ours
}

void serve_kernel(BoardServer& server) {
    if (kernel_device_take(server.kernel, *server.target.board)) {
        keep_flash(server);
        kernel_device_give(server.kernel);
    }
}

void watch(BoardServer& server, int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(server.events, EPOLL_CTL_ADD, fd, &event);
}

void take_connection(BoardServer& server) {
    const int fd = accept4(server.listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (server.connections.size() >= kMostConnections) {
        close(fd);
        return;
    }
    server.connections[fd] = {};
    watch(server, fd);
}

void reap_child(BoardServer& server) {
    int status = 0;
    if (server.child > 0 && waitpid(server.child, &status, WNOHANG) == server.child) {
        server.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        server.target.quit = true;
        server.child = -1;
    }
}

void take_signal(BoardServer& server) {
    signalfd_siginfo info = {};
    if (read(server.signals, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return;
    }
    if (info.ssi_signo == SIGCHLD) {
        reap_child(server);
    } else if (server.child > 0) {
        kill(server.child, static_cast<int>(info.ssi_signo));
    } else {
        server.target.quit = true;
    }
}

std::string listen_in(BoardServer& server, const std::string& directory) {
    sockaddr_un address;
    if (!board_socket_address(directory, &address)) {
        return "the path of directory " + directory + " is too long for a socket: choose a shorter one";
    }
    const int other = board_socket_connect(directory);
    if (other >= 0) {
        close(other);
        return "a board runs in " + directory + " already: choose another directory";
    }
    unlink(address.sun_path); // of a board that was killed
    server.listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (server.listener < 0 ||
        bind(server.listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(server.listener, kBacklog) != 0) {
        return std::string("can't listen at ") + address.sun_path + ": " + strerror(errno);
    }
    server.socket_path = address.sun_path;
    return "";
}

// Whether there is nothing to wait for any more.
bool is_over(const BoardServer& server) {
    return server.target.quit && server.child <= 0;
}

void handle_event(BoardServer& server, int fd) {
    if (fd == server.listener) {
        take_connection(server);
    } else if (fd == server.signals) {
        take_signal(server);
    } else if (fd == server.kernel.fd) {
        serve_kernel(server);
    } else if (server.connections.count(fd) != 0) {
        serve(server, fd);
    }
}

} // namespace

std::string server_open(BoardServer& server, const std::string& directory) {
    server.directory = directory;
    std::string error = listen_in(server, directory);
    if (!error.empty()) {
        return error;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGCHLD);
    server.signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    server.events = epoll_create1(EPOLL_CLOEXEC);
    if (server.signals < 0 || server.events < 0) {
        return std::string("can't wait for events: ") + strerror(errno);
    }
    watch(server, server.listener);
    watch(server, server.signals);
    return "";
}

std::string server_open_kernel(BoardServer& server, const std::string& path) {
    std::string error = kernel_device_open(server.kernel, *server.target.board, path);
    if (error.empty()) {
        watch(server, server.kernel.fd);
    }
    return error;
}

int server_run(BoardServer& server) {
    bool terminated = false;
    while (!is_over(server)) {
        std::array<epoll_event, kEventsAtOnce> events = {};
        const int limit = terminated ? kTerminationLimitMs : -1;
        const int count = epoll_wait(server.events, events.data(), kEventsAtOnce, limit);
        for (int i = 0; i < count; ++i) {
            handle_event(server, events[static_cast<size_t>(i)].data.fd);
        }
        if (server.target.quit && server.child > 0 && (!terminated || count == 0)) {
            kill(server.child, terminated ? SIGKILL : SIGTERM);
            terminated = true;
        }
    }
    return server.status;
}

void server_close(BoardServer& server) {
    while (!server.connections.empty()) {
        drop(server, server.connections.begin()->first);
    }
    kernel_device_close(server.kernel);
    if (!server.socket_path.empty()) {
        unlink(server.socket_path.c_str());
    }
    for (int* fd : {&server.listener, &server.signals, &server.events}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}
