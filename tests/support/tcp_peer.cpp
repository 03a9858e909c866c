#include "support/tcp_peer.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

int free_tcp_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

TcpPeer::TcpPeer(int port, int receive_buffer, const char* own_address)
    : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    if (own_address != nullptr) {
        inet_pton(AF_INET, own_address, &address.sin_addr);
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (receive_buffer > 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("nobody listens");
    }
    fcntl(fd, F_SETFL, O_NONBLOCK);
}

TcpPeer::~TcpPeer() {
    end();
}

bool TcpPeer::send(const std::string& text) const {
    return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

bool TcpPeer::read() {
    std::array<char, 4096> bytes = {};
    for (;;) {
        const ssize_t size = recv(fd, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return size < 0 && errno == EAGAIN;
        }
        got.append(bytes.data(), static_cast<size_t>(size));
    }
}

unsigned TcpPeer::pieces() const {
    tcp_info info = {};
    socklen_t size = sizeof info;
    getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info.tcpi_data_segs_in;
}

void TcpPeer::end(bool reset) {
    const linger none = {1, 0};
    if (fd >= 0 && reset) {
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    }
    if (fd >= 0) {
        close(std::exchange(fd, -1));
    }
}
