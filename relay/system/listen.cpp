#include "system/listen.h"

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <event2/util.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// All TCP clients may come at once; who finds no place tries again after a second. The kernel gives
// net.core.somaxconn at most.
constexpr int kBacklog = 2000;
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kLockMode = 0600;
constexpr size_t kPortOffset = offsetof(sockaddr_in, sin_port); // the same in both families
static_assert(kPortOffset == offsetof(sockaddr_in6, sin6_port));

int close_failed(int fd) {
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    errno = error;
    return -1;
}

// Reads [ADDRESS:]PORT; an address of IPv6 stands in brackets, else nobody knows where it ends. Returns the
// length of the address, 0 when the place is none.
socklen_t parse_place(const std::string& place, sockaddr_storage& address) {
    const size_t colon = place.rfind(':');
    const std::string host = colon == std::string::npos ? "127.0.0.1" : place.substr(0, colon);
    const char* const text = place.c_str() + (colon == std::string::npos ? 0 : colon + 1);
    const char* const end = place.c_str() + place.size();
    const bool in_brackets = host.starts_with('[') && host.ends_with(']');
    in_port_t port = 0;
    const auto [rest, error] = std::from_chars(text, end, port);
    int length = sizeof address;
    if (error != std::errc() || rest != end || (!in_brackets && host.find(':') != std::string::npos) ||
        evutil_parse_sockaddr_port(host.c_str(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    port = htons(port);
    memcpy(reinterpret_cast<char*>(&address) + kPortOffset, &port, sizeof port);
    return static_cast<socklen_t>(length);
}

// Whether a socket is open at the path: it takes us, is full, is of another type, or is another's only.
bool is_served(const sockaddr_un& address, int type) {
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return false;
    }
    const bool served = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
                        errno == EAGAIN || errno == EPROTOTYPE || errno == EPERM;
    close(fd);
    return served;
}

// Binds the path and listens; what stands there unserved goes.
bool bind_path(int fd, const std::string& path, const sockaddr_un& address, int type) {
    if (is_served(address, type)) {
        errno = EADDRINUSE;
        return false;
    }
    struct stat old = {};
    if (lstat(path.c_str(), &old) == 0 && S_ISSOCK(old.st_mode)) {
        unlink(path.c_str());
    }
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
           (type == SOCK_DGRAM || listen(fd, kBacklog) == 0);
}

// Takes the lock beside the path, until it is served. -1 with errno set, EADDRINUSE when another relay
// has it: of two that come in the same instant one binds the path, and the other must not remove what it
// bound. The kernel takes the lock from one that is killed.
int lock_beside(const std::string& lock_path) {
    const int fd = open(lock_path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode);
    if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return fd;
    }
    errno = errno == EWOULDBLOCK ? EADDRINUSE : errno;
    return close_failed(fd);
}

bool bind_path_alone(int fd, const std::string& path, int type) {
    sockaddr_un address = {};
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos) {
        mkdir(path.substr(0, slash).c_str(), kDirectoryMode);
    }
    const std::string lock_path = path + ".lock";
    const int lock = lock_beside(lock_path);
    if (lock < 0) {
        return false;
    }
    const bool bound = bind_path(fd, path, address, type);
    const int error = errno;
    unlink(lock_path.c_str());
    close(lock);
    errno = error;
    return bound;
}

} // namespace

int listen_tcp(const std::string& place) {
    sockaddr_storage address = {};
    const socklen_t length = parse_place(place, address);
    if (length == 0) {
        errno = EINVAL;
        return -1;
    }
    const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool listens = fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                         listen(fd, kBacklog) == 0;
    return listens ? fd : close_failed(fd);
}

int listen_path(const std::string& path, int type) {
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return fd >= 0 && bind_path_alone(fd, path, type) ? fd : close_failed(fd);
}
