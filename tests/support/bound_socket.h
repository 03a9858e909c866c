// A socket bound at a path, which nobody reads.
#ifndef TAVOR_TESTS_BOUND_SOCKET_H
#define TAVOR_TESTS_BOUND_SOCKET_H

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct BoundSocket {
    explicit BoundSocket(const std::string& path, int type = SOCK_DGRAM) : fd(socket(AF_UNIX, type, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~BoundSocket() {
        close(fd);
    }
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;

    int fd;
};

#endif
