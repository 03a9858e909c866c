#include "device/location_socket_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kBacklog = 5;

// Kept: a text that can't be read becomes the all-ones address, as inet_addr has it.
bool bind_to(int32_t fd, const char* ip, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(ip);
    address.sin_port = htons(port);
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

} // namespace

int32_t location_socket_server_create_tcp(const char* ip, uint16_t port) {
    const int32_t fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        const int error = errno;
        printf("[LOCSERV] ERR: location_socket_server_create_tcp, socket fail, port=%d reason=[%s]%d\n", port,
               strerror(error), error);
        return -1;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        const int error = errno;
        printf("[LOCSERV] ERR: location_socket_server_create_tcp, setsockopt fail, port=%d reason=[%s]%d\n",
               port, strerror(error), error);
    }
    if (!bind_to(fd, ip, port)) {
        const int error = errno;
        printf("[LOCSERV] ERR: location_socket_server_create_tcp, bind fail, port=%d reason=[%s]%d\n", port,
               strerror(error), error);
        close(fd);
        return -1;
    }
    if (listen(fd, kBacklog) != 0) { // Kept: the socket is returned all the same.
        const int error = errno;
        printf("[LOCSERV] ERR: location_socket_server_create_tcp, listen fail, port=%d reason=[%s]%d\n", port,
               strerror(error), error);
    }
    return fd;
}

int32_t location_socket_server_accept_new_tcp_connect(int32_t fd) {
    sockaddr_in peer{};
    socklen_t peer_size = sizeof peer;
    const int32_t client = accept4(fd, reinterpret_cast<sockaddr*>(&peer), &peer_size, SOCK_CLOEXEC);
    if (client < 0) {
        const int error = errno;
        printf(
            "[LOCSERV] ERR: location_socket_server_accept_new_tcp_connect, accept fail, serverfd=%d reason=[%s]%d\n",
            fd, strerror(error), error);
        return -1;
    }
    return client;
}
