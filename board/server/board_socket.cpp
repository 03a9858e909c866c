#include "server/board_socket.h"

#include "interpose/wire.h"

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
    std::memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

int board_socket_connect(const std::string& directory) {
    sockaddr_un address;
    if (!board_socket_address(directory, &address)) {
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}
