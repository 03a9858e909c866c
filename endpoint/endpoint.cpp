#include "endpoint/endpoint.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kBindAttempts = 16;

static_assert(sizeof(sockaddr_un) == 110);

} // namespace

bool endpoint_bind(int socket, const char* name) {
    for (int i = 0; i < kBindAttempts; ++i) {
        uint64_t random = 0;
        if (getrandom(&random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
            return false;
        }
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "%s-%d-%016llx", name,
                 static_cast<int>(getpid()), static_cast<unsigned long long>(random));
        if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return true;
        }
        if (errno != EADDRINUSE) {
            return false;
        }
    }
    return false;
}

// The time of modification of a socket stays that of its making: neither use nor chmod changes it.
std::optional<EndpointFile> endpoint_file(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return EndpointFile{status.st_dev, status.st_ino, status.st_mtim};
}

bool endpoint_same_file(const EndpointFile& a, const EndpointFile& b) {
    return a.device == b.device && a.number == b.number && a.made.tv_sec == b.made.tv_sec &&
           a.made.tv_nsec == b.made.tv_nsec;
}
