// Addresses of Unix sockets lead below the private directory.
#include "interpose/paths.h"
#include "support/private_dir.h"
#include "tavor/protocol.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    return address;
}

int bind_to(int fd, const sockaddr_un& address, size_t size = sizeof(sockaddr_un)) {
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(size));
}

std::string name_of(int fd) {
    sockaddr_un address = {};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return address.sun_path;
}

struct InterposeSockets : testing::Test {
    void SetUp() override {
        directory.write("etc/default/tavor/tavor.conf", "");
        interpose_set_root(directory.path.string());
        server = socket(AF_UNIX, SOCK_DGRAM, 0);
        client = socket(AF_UNIX, SOCK_DGRAM, 0);
    }

    void TearDown() override {
        close(server);
        close(client);
        interpose_set_root("");
    }

    std::string received() const {
        char buffer[16] = "";
        const ssize_t size = recv(server, buffer, sizeof buffer, MSG_DONTWAIT);
        return {buffer, size > 0 ? static_cast<size_t>(size) : 0};
    }

    PrivateDir directory;
    int server = -1;
    int client = -1;
};

TEST_F(InterposeSockets, TheDaemonsAddressIsBoundInThePrivateDirectory) {
    ASSERT_EQ(sizeof(sockaddr_un), 110U);
    ASSERT_EQ(bind_to(server, address_of(TAVOR_SOCKET_PATH)), 0);
    EXPECT_EQ(name_of(server), directory.path.string() + TAVOR_SOCKET_PATH);
    unlink(TAVOR_SOCKET_PATH);
    const size_t own = offsetof(sockaddr_un, sun_path) + strlen(TAVOR_SOCKET_PATH); // without a NUL
    ASSERT_EQ(bind_to(client, address_of(TAVOR_SOCKET_PATH), own), 0);
    EXPECT_EQ(name_of(client), directory.path.string() + TAVOR_SOCKET_PATH);
}

TEST_F(InterposeSockets, SendingAndConnectingGoTheSameWay) {
    const sockaddr_un address = address_of(TAVOR_SOCKET_PATH);
    const auto* plain = reinterpret_cast<const sockaddr*>(&address);
    ASSERT_EQ(bind_to(server, address), 0);

    EXPECT_EQ(sendto(client, "one", 3, 0, plain, sizeof address), 3);
    EXPECT_EQ(received(), "one");
    ASSERT_EQ(connect(client, plain, sizeof address), 0);
    EXPECT_EQ(send(client, "two", 3, 0), 3);
    EXPECT_EQ(received(), "two");
    EXPECT_EQ(sendto(client, "six", 3, 0, nullptr, 0), 3);
    EXPECT_EQ(received(), "six");
}

TEST_F(InterposeSockets, APathOf107CharactersFitsAndOneMoreDoesNot) {
    constexpr size_t kLongest = 107;
    const std::string fixed = "/etc/default/tavor/";
    const std::string name(kLongest - directory.path.string().size() - fixed.size(), 'n');
    ASSERT_EQ(bind_to(server, address_of(fixed + name)), 0);
    EXPECT_EQ(name_of(server).size(), kLongest);

    testing::internal::CaptureStderr();
    EXPECT_EQ(bind_to(client, address_of(fixed + name + "n")), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "board: socket path " + directory.path.string() + fixed + name +
                  "n has 108 characters, at most 107 are possible: use a shorter directory\n");
}

TEST_F(InterposeSockets, OtherAddressesAreNotTouched) {
    const std::string outside = (directory.path / "outside").string();
    ASSERT_EQ(bind_to(server, address_of(outside)), 0);
    EXPECT_EQ(name_of(server), outside);

    sockaddr_un abstract = address_of("");
    snprintf(abstract.sun_path + 1, sizeof abstract.sun_path - 1, "%s-%d", TAVOR_SOCKET_PATH, getpid());
    ASSERT_EQ(bind_to(client, abstract), 0);
    EXPECT_EQ(name_of(client), "");
}

TEST_F(InterposeSockets, AWrongAddressIsTheKernelsToRefuse) {
    EXPECT_EQ(bind(server, nullptr, sizeof(sockaddr_un)), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(bind_to(server, address_of(TAVOR_SOCKET_PATH), 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(bind_to(server, address_of(TAVOR_SOCKET_PATH), sizeof(sockaddr_un) + 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
