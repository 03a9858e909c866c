// Replaced socket functions: a Unix socket's address carries a path, too.
#undef _FORTIFY_SOURCE

#include "interpose/clock.h"
#include "interpose/hook.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace {

// An address as the real function gets it.
struct HookAddress {
    const sockaddr* address;
    socklen_t size;
    bool fits = true; // false: errno is set
    sockaddr_un mapped = {};
};

// Path of a Unix socket address, empty for any other address, for abstract ones and for what is none.
std::string path_of(const sockaddr* address, socklen_t size) {
    constexpr size_t kPathOffset = offsetof(sockaddr_un, sun_path);
    if (address == nullptr || size <= kPathOffset || size > sizeof(sockaddr_un) ||
        address->sa_family != AF_UNIX) {
        return "";
    }
    const char* path = reinterpret_cast<const char*>(address) + kPathOffset;
    return {path, strnlen(path, size - kPathOffset)};
}

void map_address(HookAddress& hooked, const sockaddr* address, socklen_t size) {
    hooked.address = address;
    hooked.size = size;
    const std::string path = path_of(address, size);
    if (!interpose_maps(path.c_str())) {
        return;
    }
    const std::string target = interpose_map(path.c_str());
    if (target.size() >= sizeof hooked.mapped.sun_path) {
        fprintf(stderr,
                "board: socket path %s has %zu characters, at most %zu are possible: use a shorter "
                "directory\n",
                target.c_str(), target.size(), sizeof hooked.mapped.sun_path - 1);
        errno = ENAMETOOLONG;
        hooked.fits = false;
        return;
    }
    hooked.mapped.sun_family = AF_UNIX;
    memcpy(hooked.mapped.sun_path, target.c_str(), target.size());
    hooked.address = reinterpret_cast<const sockaddr*>(&hooked.mapped);
    hooked.size = sizeof hooked.mapped;
}

using AddressCall = int(int, const sockaddr*, socklen_t);

int call(AddressCall* function, const char* name, int fd, const sockaddr* address, socklen_t size) {
    if (hook_fails(name)) {
        return -1;
    }
    HookAddress hooked;
    map_address(hooked, address, size);
    return hooked.fits ? function(fd, hooked.address, hooked.size) : -1;
}

constexpr int64_t kNsPerUs = 1000;

bool is_time_out(int level, int option) {
    return level == SOL_SOCKET && (option == SO_SNDTIMEO || option == SO_RCVTIMEO);
}

// A time-out of the program's clock in the host's time; none (0) stays none.
timeval host_time_out(const timeval& time_out) {
    const int64_t us =
        (interpose_host_wait(time_out.tv_sec * kNsPerSecond + time_out.tv_usec * kNsPerUs) + kNsPerUs - 1) /
        kNsPerUs;
    return {us * kNsPerUs / kNsPerSecond, us % (kNsPerSecond / kNsPerUs)};
}

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return hook_fails("socket") ? -1 : real<"socket", int(int, int, int)>()(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
    return call(real<"bind", AddressCall>(), "bind", fd, address, size);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
    return call(real<"connect", AddressCall>(), "connect", fd, address, size);
}

ssize_t sendto(int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t size) {
    using SendTo = ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t);
    if (hook_fails("sendto")) {
        return -1;
    }
    HookAddress hooked;
    map_address(hooked, address, size);
    return hooked.fits ? real<"sendto", SendTo>()(fd, data, length, flags, hooked.address, hooked.size) : -1;
}

int listen(int fd, int backlog) noexcept {
    return hook_fails("listen") ? -1 : real<"listen", int(int, int)>()(fd, backlog);
}

int accept(int fd, sockaddr* address, socklen_t* size) {
    return hook_fails("accept") ? -1 : real<"accept", int(int, sockaddr*, socklen_t*)>()(fd, address, size);
}

int accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
    using Accept4 = int(int, sockaddr*, socklen_t*, int);
    return hook_fails("accept") ? -1 : real<"accept4", Accept4>()(fd, address, size, flags);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    using SetSockOpt = int(int, int, int, const void*, socklen_t);
    if (hook_fails("setsockopt")) {
        return -1;
    }
    if (!is_time_out(level, option) || size < sizeof(timeval) || !interpose_clock_is_own()) {
        return real<"setsockopt", SetSockOpt>()(fd, level, option, value, size);
    }
    const timeval host = host_time_out(*static_cast<const timeval*>(value));
    return real<"setsockopt", SetSockOpt>()(fd, level, option, &host, sizeof host);
}

} // extern "C"
