#include "server/board_socket.h"

#include "interpose/wire.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

bool board_socket_address(const std::string& directory, sockaddr_un* address) {
    const std::string path = directory + "/" + kWireSocketName;
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path) {
        return false;
    }
    memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

int board_socket_connect(const std::string& directory) {
    sockaddr_un address;
    if (!board_socket_address(directory, &address)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int reason = errno;
        close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

std::string board_socket_no_board(const std::string& directory, int reason) {
    if (reason == EACCES || reason == EPERM) {
        return "may not reach the board in " + directory + ": " + strerror(reason) +
               "; run as the user who started it";
    }
    return "no board runs in " + directory + ": start one with 'tavor-board run --dir " + directory + "'";
}
