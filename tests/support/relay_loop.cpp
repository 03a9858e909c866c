#include "support/relay_loop.h"

#include "hub/hub.h"
#include "local/local.h"
#include "local/local_socket.h"
#include "support/wait.h"
#include "system/listen.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

// Returns the length.
socklen_t fill(sockaddr_un& address, const std::string& bytes) {
    address.sun_family = AF_UNIX;
    bytes.copy(address.sun_path, sizeof address.sun_path);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + bytes.size());
}

int make_socket() {
    return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

uint32_t code_of(uint32_t type) {
    return upstream_requests_code(type).value_or(TAVOR_CODE_POSITION);
}

} // namespace

tavor_response relay_response(uint32_t code, uint32_t value, const std::string& payload) {
    tavor_response response = {};
    response.code = code;
    response.value = value;
    payload.copy(reinterpret_cast<char*>(response.payload), sizeof response.payload);
    return response;
}

std::string abstract_address(const std::string& name, size_t length) {
    std::string bytes = std::string(1, '\0') + name;
    bytes.resize(length);
    return bytes;
}

PlayedDaemon::PlayedDaemon(std::string socket_path) : path(std::move(socket_path)), fd(make_socket()) {
    sockaddr_un address = {};
    const socklen_t length = fill(address, path + '\0');
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        throw std::runtime_error("no daemon at " + path);
    }
}

PlayedDaemon::~PlayedDaemon() {
    close(fd);
}

void PlayedDaemon::turn() {
    sockaddr_un from = {};
    tavor_request request = {};
    for (;;) {
        socklen_t length = sizeof from;
        if (recvfrom(fd, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&from), &length) < 0) {
            return;
        }
        peer.assign(reinterpret_cast<const char*>(&from), length);
        requests.push_back(request);
        if (answers) {
            send(relay_response(code_of(request.type), value));
        }
    }
}

bool PlayedDaemon::send(const tavor_response& response) const {
    sockaddr_un to = {};
    memcpy(&to, peer.data(), peer.size());
    return sendto(fd, &response, sizeof response, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to),
                  static_cast<socklen_t>(peer.size())) >= 0;
}

size_t PlayedDaemon::count(uint32_t type) const {
    return static_cast<size_t>(std::count_if(requests.begin(), requests.end(),
                                             [&](const auto& request) { return request.type == type; }));
}

PlayedClient::PlayedClient(std::string relay_path, const std::string& address, bool connected)
    : relay(std::move(relay_path)), is_connected(connected), fd(make_socket()) {
    sockaddr_un own = {};
    const socklen_t length = fill(own, address);
    sockaddr_un to = {};
    const socklen_t to_length = fill(to, relay);
    if ((!address.empty() && bind(fd, reinterpret_cast<const sockaddr*>(&own), length) != 0) ||
        (connected && connect(fd, reinterpret_cast<const sockaddr*>(&to), to_length) != 0)) {
        throw std::runtime_error("no client of " + relay);
    }
}

PlayedClient::~PlayedClient() {
    close_socket();
}

void PlayedClient::close_socket() {
    if (fd >= 0) {
        close(std::exchange(fd, -1));
    }
}

bool PlayedClient::send(uint32_t type, const std::string& text) const {
    tavor_request request = {};
    request.type = type;
    text.copy(request.text, sizeof request.text);
    return send_bytes(&request, sizeof request);
}

bool PlayedClient::send_bytes(const void* data, size_t size) const {
    sockaddr_un to = {};
    const socklen_t length = fill(to, relay);
    return is_connected
               ? ::send(fd, data, size, MSG_NOSIGNAL) >= 0
               : sendto(fd, data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), length) >= 0;
}

void PlayedClient::read() {
    tavor_response response = {};
    while (recv(fd, &response, sizeof response, 0) == static_cast<ssize_t>(sizeof response)) {
        got.push_back(response);
    }
}

size_t PlayedClient::count(uint32_t code) const {
    return static_cast<size_t>(
        std::count_if(got.begin(), got.end(), [&](const auto& one) { return one.code == code; }));
}

int64_t PlayedClient::value(uint32_t code) const {
    const auto found =
        std::find_if(got.rbegin(), got.rend(), [&](const auto& one) { return one.code == code; });
    return found == got.rend() ? -2 : static_cast<int64_t>(found->value);
}

RelayLoop::RelayLoop() : base(event_base_open()) {
    if (!base) {
        throw std::runtime_error("no event loop");
    }
}

RelayLoop::~RelayLoop() {
    local_close();
    positioning_close();
    upstream_close();
    hub_close();
}

void RelayLoop::open(bool always, std::chrono::milliseconds stop_delay) {
    hub_open(base.get());
    if (!upstream_open(base.get(), {.path = daemon_path, .second = second})) {
        throw std::runtime_error("no upstream");
    }
    positioning_open(base.get(),
                     {.always = always, .stop_delay = stop_delay, .left_on = left_on, .second = second});
}

void RelayLoop::open_local() {
    const int fd = listen_path(local_path, SOCK_DGRAM);
    local_socket_prepare(fd);
    if (send_buffer > 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
        setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer, sizeof send_buffer);
    }
    local_open(base.get(), {.fd = fd, .second = second});
}

void RelayLoop::start_daemon() {
    daemon = nullptr;
    daemon = std::make_unique<PlayedDaemon>(daemon_path);
}

bool RelayLoop::until(const std::function<bool()>& condition) const {
    return wait_until([&] {
        event_base_loop(base.get(), EVLOOP_NONBLOCK);
        if (daemon) {
            daemon->turn();
        }
        return condition();
    });
}

void RelayLoop::turn_for(std::chrono::milliseconds time) const {
    const auto end = RelayClock::now() + time;
    until([&] { return RelayClock::now() >= end; });
}
