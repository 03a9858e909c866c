#include "system/supervisor.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kFirstSocket = 3; // the number of the first descriptor that is handed over
constexpr long long kSocketsMax = 16;

// Number of an environment variable, 0 when it is none.
long long number_of(const char* name) {
    const char* const text = getenv(name);
    long long value = 0;
    if (text != nullptr) {
        std::from_chars(text, text + strlen(text), value);
    }
    return value;
}

// Whether what the variables say is meant for this process, and not for its parent.
bool is_meant(const char* pid_name) {
    return getenv(pid_name) == nullptr || number_of(pid_name) == getpid();
}

// -1 when the descriptor is no socket.
int socket_option(int fd, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
}

} // namespace

void supervisor_tell(const char* state, std::chrono::seconds wait) {
    const char* const path = getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    const std::string_view name = path == nullptr ? "" : path;
    if (name.size() < 2 || name.size() > sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    address.sun_path[0] = name[0] == '@' ? '\0' : name[0];
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    const timeval limit = {.tv_sec = wait.count(), .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int flags = MSG_NOSIGNAL | (wait.count() == 0 ? MSG_DONTWAIT : 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    sendto(fd, state, strlen(state), flags, reinterpret_cast<const sockaddr*>(&address), length);
    close(fd);
}

std::chrono::milliseconds supervisor_watchdog() {
    const long long limit_us = is_meant("WATCHDOG_PID") ? number_of("WATCHDOG_USEC") : 0;
    return std::chrono::milliseconds(limit_us > 0 ? limit_us / 2000 : 0);
}

int supervisor_socket(int type) {
    const long long count = number_of("LISTEN_PID") == getpid() ? number_of("LISTEN_FDS") : 0;
    for (int fd = kFirstSocket; fd < kFirstSocket + std::clamp(count, 0LL, kSocketsMax); ++fd) {
        if (socket_option(fd, SO_DOMAIN) == AF_UNIX && socket_option(fd, SO_TYPE) == type) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
            return fd;
        }
    }
    return -1;
}
