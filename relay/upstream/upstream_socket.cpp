#include "upstream/upstream_socket.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

static_assert(sizeof(sockaddr_un) == TAVOR_ADDRESS_SIZE);

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

} // namespace

int upstream_socket_open() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || !endpoint_bind(fd, "tavor-relay")) {
        const int error = errno;
        if (fd >= 0) {
            close(fd);
        }
        errno = error;
        return -1;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    return fd;
}

UpstreamPresence upstream_socket_reach(int fd, const std::string& path, EndpointFile& reached) {
    sockaddr_un address = {};
    const std::optional<EndpointFile> now = endpoint_file(path);
    if (path.size() >= sizeof address.sun_path || !now) {
        return UpstreamPresence::kGone;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (connect(fd, generic(address), sizeof address) != 0) {
        return UpstreamPresence::kGone;
    }
    if (endpoint_same_file(*now, reached)) {
        return UpstreamPresence::kSame;
    }
    reached = *now;
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
