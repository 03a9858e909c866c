#include "upstream/upstream_socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kBindAttempts = 16;

static_assert(sizeof(sockaddr_un) == TAVOR_ADDRESS_SIZE);

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

bool bind_full_length(int fd) {
    for (int i = 0; i < kBindAttempts; ++i) {
        uint64_t random = 0;
        if (getrandom(&random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
            return false;
        }
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "tavor-relay-%d-%016llx",
                 static_cast<int>(getpid()), static_cast<unsigned long long>(random));
        if (bind(fd, generic(address), sizeof address) == 0) {
            return true;
        }
        if (errno != EADDRINUSE) {
            return false;
        }
    }
    return false;
}

bool same_file(const UpstreamFile& a, const UpstreamFile& b) {
    return a.device == b.device && a.number == b.number && a.made.tv_sec == b.made.tv_sec &&
           a.made.tv_nsec == b.made.tv_nsec;
}

} // namespace

int upstream_socket_open() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && !bind_full_length(fd)) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    return fd;
}

UpstreamPresence upstream_socket_reach(int fd, const std::string& path, UpstreamFile& reached) {
    sockaddr_un address = {};
    struct stat file = {};
    if (path.size() >= sizeof address.sun_path || stat(path.c_str(), &file) != 0) {
        return UpstreamPresence::kGone;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (connect(fd, generic(address), sizeof address) != 0) {
        return UpstreamPresence::kGone;
    }
    const UpstreamFile now = {file.st_dev, file.st_ino, file.st_mtim};
    if (same_file(now, reached)) {
        return UpstreamPresence::kSame;
    }
    reached = now;
    return UpstreamPresence::kOther;
}

HubTime upstream_socket_arrival(const msghdr& message) {
    const cmsghdr* const stamp = CMSG_FIRSTHDR(&message);
    if (stamp == nullptr || stamp->cmsg_level != SOL_SOCKET || stamp->cmsg_type != SCM_TIMESTAMPNS) {
        return std::chrono::system_clock::now();
    }
    timespec when = {};
    memcpy(&when, CMSG_DATA(stamp), sizeof when);
    return HubTime(std::chrono::seconds(when.tv_sec) + std::chrono::nanoseconds(when.tv_nsec));
}
