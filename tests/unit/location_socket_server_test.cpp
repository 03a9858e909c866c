#include "debug/location_socket_server.h"

#include "debug_support.h"
#include "support/capture.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

enum Call { kNone, kSocket, kSetsockopt, kListen } failing_call = kNone;

int call_or_fail(Call call, long number, long a, long b, long c, long d = 0, long e = 0) {
    if (failing_call == call) {
        errno = ENOBUFS;
        return -1;
    }
    return static_cast<int>(syscall(number, a, b, c, d, e));
}

const std::string kNoBufferSpace = " reason=[No buffer space available]105\n";

} // namespace

// The three calls as the server sees them; each fails when a test says so.
extern "C" int socket(int domain, int type, int protocol) noexcept {
    return call_or_fail(kSocket, SYS_socket, domain, type, protocol);
}

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
    return call_or_fail(kSetsockopt, SYS_setsockopt, fd, level, name, reinterpret_cast<long>(value), size);
}

extern "C" int listen(int fd, int backlog) noexcept {
    return call_or_fail(kListen, SYS_listen, fd, backlog, 0);
}

namespace {

struct SocketServerTest : testing::Test {
    int create(const char* ip = "127.0.0.1") {
        log = capture_stdout([&] { fd = location_socket_server_create_tcp(ip, port); });
        failing_call = kNone;
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

TEST_F(SocketServerTest, ReusesTheAddressOfClosedConnections) {
    ASSERT_GE(create(), 0);
    int on = 0;
    socklen_t size = sizeof on;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, &size), 0);
    EXPECT_EQ(on, 1);
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

TEST_F(SocketServerTest, NoSocketIsReported) {
    failing_call = kSocket;
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(log, line("socket", kNoBufferSpace));
}

TEST_F(SocketServerTest, FailedOptionIsReportedAndIgnored) {
    failing_call = kSetsockopt;
    EXPECT_GE(create(), 0);
    EXPECT_EQ(log, line("setsockopt", kNoBufferSpace));
}

TEST_F(SocketServerTest, SocketThatCantListenIsReturnedAllTheSame) {
    failing_call = kListen;
    EXPECT_GE(create(), 0);
    EXPECT_EQ(log, line("listen", kNoBufferSpace));
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
    log = capture_stdout([&] { EXPECT_EQ(location_socket_server_accept_new_tcp_connect(fd), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_socket_server_accept_new_tcp_connect, accept fail, serverfd=" +
                       std::to_string(fd) + " reason=[Resource temporarily unavailable]11\n");
}
