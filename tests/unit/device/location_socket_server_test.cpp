#include "device/location_socket_server.h"

#include "interpose/fail.h"
#include "support/capture.h"
#include "support/debug_support.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct SocketServerTest : testing::Test {
    int create(const char* ip = "127.0.0.1") {
        log = capture_stdout([&] { fd = location_socket_server_create_tcp(ip, port); });
        interpose_fail_reset();
        return fd;
    }
    void TearDown() override {
        if (fd >= 0) {
            close(fd);
        }
    }
    // The line of a failed step.
    std::string line(const std::string& step, const std::string& reason) const {
        return "[LOCSERV] ERR: location_socket_server_create_tcp, " + step +
               " fail, port=" + std::to_string(port) + reason;
    }

    uint16_t port = free_port();
    int fd = -1;
    std::string log;
};

} // namespace

TEST_F(SocketServerTest, AcceptsAClientOfItsPort) {
    ASSERT_GE(create(), 0);
    EXPECT_EQ(log, "");
    TcpClient client(port);
    const int accepted = location_socket_server_accept_new_tcp_connect(fd);
    ASSERT_GE(accepted, 0);
    client.send("x");
    EXPECT_EQ(read_bytes(accepted, 1), "x");
    close(accepted);
}

TEST_F(SocketServerTest, ServerAndClientsAreNotPassedOnToOtherPrograms) {
    ASSERT_GE(create(), 0);
    const TcpClient client(port);
    const int accepted = location_socket_server_accept_new_tcp_connect(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(accepted, F_GETFD), FD_CLOEXEC);
    close(accepted);
}

TEST_F(SocketServerTest, ReusesTheAddressOfClosedConnections) {
    ASSERT_GE(create(), 0);
    int on = 0;
    socklen_t size = sizeof on;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, &size), 0);
    EXPECT_EQ(on, 1);
}

TEST_F(SocketServerTest, FiveClientsMayWaitToBeAccepted) {
    ASSERT_GE(create(), 0);
    tcp_info info{};
    socklen_t size = sizeof info;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_EQ(info.tcpi_sacked, 5U); // of a listening socket that is its backlog
}

TEST_F(SocketServerTest, PortHeldByAnotherServerFailsAndClosesTheSocket) {
    const int holder = location_socket_server_create_tcp("127.0.0.1", port);
    ASSERT_GE(holder, 0);
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(log, line("bind", " reason=[Address already in use]98\n"));
    EXPECT_EQ(open_descriptors(), descriptors);
    close(holder);
}

TEST_F(SocketServerTest, AddressOfAnotherHostFails) {
    EXPECT_EQ(create("203.0.113.1"), -1);
    EXPECT_EQ(log, line("bind", " reason=[Cannot assign requested address]99\n"));
}

TEST_F(SocketServerTest, UnreadableAddressBecomesAllOnes) {
    create("no address");
    if (fd >= 0) { // whether a host lets it be bound is its own affair
        sockaddr_in address{};
        socklen_t size = sizeof address;
        ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
        EXPECT_EQ(address.sin_addr.s_addr, INADDR_NONE);
    } else {
        EXPECT_EQ(log.find(line("bind", "")), 0U);
    }
}

TEST_F(SocketServerTest, FailedStepIsReportedAndOnlyAMissingSocketEndsIt) {
    for (const std::string step : {"socket", "setsockopt", "listen"}) {
        interpose_fail(step.c_str(), 1, ENOBUFS);
        EXPECT_EQ(create() == -1, step == "socket") << step;
        EXPECT_EQ(log, line(step, " reason=[No buffer space available]105\n"));
        TearDown();
    }
    fd = -1;
}

TEST_F(SocketServerTest, AcceptingFromWhatIsNoServerIsReported) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    log = capture_stdout([&] { EXPECT_EQ(location_socket_server_accept_new_tcp_connect(ends[0]), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_socket_server_accept_new_tcp_connect, accept fail, serverfd=" +
                       std::to_string(ends[0]) + " reason=[Socket operation on non-socket]88\n");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(SocketServerTest, AcceptingDoesNotWaitForAClient) {
    ASSERT_GE(create(), 0);
    ASSERT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0); // else the accept below would wait for ever
    log = capture_stdout([&] { EXPECT_EQ(location_socket_server_accept_new_tcp_connect(fd), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_socket_server_accept_new_tcp_connect, accept fail, serverfd=" +
                       std::to_string(fd) + " reason=[Resource temporarily unavailable]11\n");
}
