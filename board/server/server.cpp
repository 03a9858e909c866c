#include "server/server.h"

#include "server/board_socket.h"
#include "server/flash_file.h"

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

// Both ends wait for each other, so a full socket means a peer that does not keep to the protocol.
bool send_reply(int fd, ServerReply& reply) {
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
    static std::vector<uint8_t> buffer(sizeof(WireRequest) + kWirePayloadMax);
    const ssize_t size = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    ServerRequest request = {{}, buffer.data() + sizeof(WireRequest)};
    if (size >= static_cast<ssize_t>(sizeof request.header) && size <= static_cast<ssize_t>(buffer.size())) {
        memcpy(&request.header, buffer.data(), sizeof request.header);
        ServerReply reply;
        if (request.header.length == static_cast<size_t>(size) - sizeof request.header) {
            server_answer(server.target, server.connections[fd], request, reply);
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
