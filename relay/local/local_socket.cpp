#include "local/local_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kSendBuffer = 32 * 1024 * 1024; // what clients have not read stays charged to it
constexpr size_t kPathOffset = offsetof(sockaddr_un, sun_path);
constexpr size_t kTypeSize = sizeof(uint32_t);

union ControlBlock {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(ucred))];
};

sockaddr_un address_of(const std::string& bytes) {
    sockaddr_un address = {};
    memcpy(&address, bytes.data(), std::min(bytes.size(), sizeof address));
    return address;
}

void take_credentials(msghdr& message, LocalRequest& received) {
    received.user.reset();
    for (cmsghdr* one = CMSG_FIRSTHDR(&message); one != nullptr; one = CMSG_NXTHDR(&message, one)) {
        if (one->cmsg_level == SOL_SOCKET && one->cmsg_type == SCM_CREDENTIALS) {
            ucred who = {};
            memcpy(&who, CMSG_DATA(one), sizeof who);
            received.user = who.uid;
            received.group = who.gid;
        }
    }
}

} // namespace

void local_socket_prepare(int fd) {
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    int present = 0;
    socklen_t size = sizeof present;
    // The kernel tells twice what was asked for. A supervisor may have asked for more than we may.
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &present, &size) == 0 && present / 2 >= kSendBuffer) {
        return;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    }
}

LocalReceived local_socket_receive(int fd, LocalRequest& received) {
    sockaddr_storage from =
        {}; // the kernel counts a NUL that a path of 108 bytes has no room for in a sockaddr_un
    const auto* const name = reinterpret_cast<const char*>(&from);
    ControlBlock control = {};
    received.request = {};
    iovec bytes = {&received.request, sizeof received.request};
    msghdr message = {};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    const ssize_t size = recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0) {
        return LocalReceived::kNothing;
    }
    take_credentials(message, received);
    const size_t length = std::min<size_t>(message.msg_namelen, sizeof(sockaddr_un));
    const bool has_address = length > kPathOffset;
    received.address.assign(name, has_address ? length : 0);
    if (has_address && name[kPathOffset] != '\0') { // a path: up to its NUL
        received.address.resize(std::min(received.address.find('\0', kPathOffset), received.address.size()));
    }
    received.request.text[TAVOR_TEXT_SIZE - 1] = '\0';
    return static_cast<size_t>(size) < kTypeSize ? LocalReceived::kMalformed : LocalReceived::kRequest;
}

LocalSent local_socket_send(int fd, const std::string& address, const tavor_response& response) {
    const sockaddr_un to = address_of(address);
    ssize_t sent = 0;
    do {
        sent = sendto(fd, &response, sizeof response, MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&to), static_cast<socklen_t>(address.size()));
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return LocalSent::kDone;
    }
    const bool full = errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM;
    return full ? LocalSent::kFull : LocalSent::kGone;
}

bool local_socket_is_gone(const std::string& address) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const sockaddr_un to = address_of(address);
    // A client that is connected to the relay refuses this socket (EPERM): then it is there.
    const bool gone =
        connect(fd, reinterpret_cast<const sockaddr*>(&to), static_cast<socklen_t>(address.size())) != 0 &&
        (errno == ECONNREFUSED || errno == ENOENT);
    close(fd);
    return gone;
}
