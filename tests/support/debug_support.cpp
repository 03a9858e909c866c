#include "support/debug_support.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

size_t entries_of(const char* directory) {
    const std::filesystem::directory_iterator begin(directory);
    return static_cast<size_t>(std::distance(begin, std::filesystem::directory_iterator()));
}

sockaddr_in local_address(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int checked(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(what);
    }
    return result;
}

bool readable(int fd, int limit_ms = static_cast<int>(std::chrono::milliseconds(kWaitLimit).count())) {
    pollfd input{.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&input, 1, limit_ms) == 1;
}

void write_all(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t written = ::write(fd, bytes.data() + done, bytes.size() - done);
        ASSERT_GT(written, 0);
        done += static_cast<size_t>(written);
    }
}

} // namespace

std::string read_bytes(int fd, size_t count) {
    std::string bytes;
    while (bytes.size() < count && readable(fd)) {
        char buffer[4096];
        const ssize_t got = read(fd, buffer, std::min(sizeof buffer, count - bytes.size()));
        if (got < 1) {
            break;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
}

std::string read_until(int fd, const std::string& text) {
    std::string bytes;
    const auto end = std::chrono::steady_clock::now() + kWaitLimit;
    while (bytes.find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
        const std::string piece = read_bytes(fd, 1);
        if (piece.empty()) {
            break;
        }
        bytes += piece + read_now(fd);
    }
    return bytes;
}

std::string read_now(int fd) {
    char buffer[65536];
    const ssize_t got = readable(fd, 0) ? read(fd, buffer, sizeof buffer) : 0;
    return {buffer, got > 0 ? static_cast<size_t>(got) : 0};
}

std::string binary_data() {
    std::string data;
    for (int byte = 0; byte < 256; ++byte) {
        data += static_cast<char>(byte);
    }
    return data + std::string("\x11\x13\x77\x77\x77\x88\x77\xEC\x77\xEE\x13\x11");
}

size_t open_descriptors() {
    return entries_of("/proc/self/fd");
}

size_t running_threads() {
    return entries_of("/proc/self/task");
}

void limit_queue(int queue, unsigned messages) {
    msqid_ds status{};
    ASSERT_EQ(msgctl(queue, IPC_STAT, &status), 0);
    status.msg_qbytes = messages * kQueuedBlockSize;
    ASSERT_EQ(msgctl(queue, IPC_SET, &status), 0);
}

PseudoTerminal::PseudoTerminal() : master(checked(posix_openpt(O_RDWR | O_NOCTTY), "posix_openpt")) {
    checked(grantpt(master), "grantpt");
    checked(unlockpt(master), "unlockpt");
    char name[64];
    ptsname_r(master, name, sizeof name);
    path = name;
    slave = checked(open(name, O_RDWR | O_NOCTTY), "open slave");
}

PseudoTerminal::~PseudoTerminal() {
    ::close(slave);
    hang_up();
}

void PseudoTerminal::write(const std::string& bytes) const {
    write_all(master, bytes);
}

void PseudoTerminal::fill() const {
    checked(fcntl(slave, F_SETFL, O_NONBLOCK), "fcntl");
    while (::write(slave, "f", 1) == 1) {
    }
    EXPECT_EQ(errno, EAGAIN);
}

void PseudoTerminal::hang_up() {
    if (master != -1) {
        ::close(master);
        master = -1;
    }
}

uint16_t free_port() {
    const int fd = checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
    sockaddr_in address = local_address(0);
    socklen_t size = sizeof address;
    checked(bind(fd, reinterpret_cast<const sockaddr*>(&address), size), "bind");
    checked(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
    ::close(fd);
    return ntohs(address.sin_port);
}

int hold_port(uint16_t port) {
    const int fd = checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
    const sockaddr_in address = local_address(port);
    checked(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    checked(listen(fd, 1), "listen");
    return fd;
}

TcpClient::TcpClient(uint16_t port, int receive_buffer)
    : fd(checked(socket(AF_INET, SOCK_STREAM, 0), "socket")) {
    if (receive_buffer > 0) {
        checked(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer), "SO_RCVBUF");
    }
    const sockaddr_in address = local_address(port);
    checked(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
}

TcpClient::~TcpClient() {
    close();
}

void TcpClient::send(const std::string& bytes) const {
    write_all(fd, bytes);
}

bool TcpClient::gets(const std::string& text) const {
    return read_until(fd, text).find(text) != std::string::npos;
}

bool TcpClient::ends() const {
    char byte = 0;
    return readable(fd) && read(fd, &byte, 1) < 1;
}

void TcpClient::reset() {
    const linger at_once{.l_onoff = 1, .l_linger = 0};
    checked(setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), "SO_LINGER");
    close();
}

void TcpClient::close() {
    if (fd != -1) {
        ::close(fd);
        fd = -1;
    }
}
