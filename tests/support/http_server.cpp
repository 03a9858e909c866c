#include "support/http_server.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kChunkSize = 4096;

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

std::string read_head(int connection) {
    std::string head;
    char chunk[kChunkSize];
    while (head.find("\r\n\r\n") == std::string::npos) {
        const ssize_t size = recv(connection, chunk, sizeof chunk, 0);
        if (size <= 0) {
            return head;
        }
        head.append(chunk, static_cast<size_t>(size));
    }
    return head;
}

void serve(const HttpServer& server) {
    for (;;) {
        const int connection = accept(server.listener, nullptr, nullptr);
        if (connection < 0) {
            return;
        }
        const std::string head = read_head(connection);
        if (!head.empty()) {
            server.answer(connection, head);
        }
        close(connection);
    }
}

} // namespace

HttpServer::HttpServer(Answer function)
    : listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), answer(std::move(function)) {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    require(bind(listener, reinterpret_cast<sockaddr*>(&at), size) == 0 && listen(listener, 8) == 0);
    require(getsockname(listener, reinterpret_cast<sockaddr*>(&at), &size) == 0);
    port = ntohs(at.sin_port);
    thread = std::thread([this] { serve(*this); });
}

HttpServer::~HttpServer() {
    shutdown(listener, SHUT_RDWR);
    thread.join();
    close(listener);
}

std::string HttpServer::address() const {
    return "127.0.0.1:" + std::to_string(port);
}

void http_send(int connection, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t size = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (size <= 0) {
            return; // the client has had enough
        }
        sent += static_cast<size_t>(size);
    }
}

void http_reset_at_close(int connection) {
    const linger at_once = {.l_onoff = 1, .l_linger = 0};
    require(setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) == 0);
}

void http_wait_for_end(int connection) {
    char byte;
    while (recv(connection, &byte, 1, 0) > 0) {
    }
}
