#include "support/private_dir.h"
#include "system/listen.h"

#include <algorithm>
#include <array>
#include <barrier>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

TEST(RelayListen, MayStandInTheWorkingDirectory) {
    const PrivateDir directory;
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(directory.path);
    const int fd = listen_path("relay.sock", SOCK_DGRAM);
    EXPECT_TRUE(std::filesystem::is_socket("relay.sock"));
    std::filesystem::current_path(before);
    EXPECT_GE(fd, 0);
    close(fd);
}

struct RelayListenTogether : testing::TestWithParam<int> {};

TEST_P(RelayListenTogether, OfManyThatComeInTheSameInstantOneGetsThePlace) {
    constexpr int kRounds = 500;
    constexpr int kMany = 4;
    const PrivateDir directory;
    const std::string path = (directory.path / "relay").string();
    for (int round = 0; round < kRounds; ++round) {
        close(listen_path(path, GetParam())); // one that was killed leaves it there
        std::barrier together(kMany);
        std::array<int, kMany> sockets = {};
        std::vector<std::thread> relays;
        for (int& socket : sockets) {
            relays.emplace_back([&] {
                together.arrive_and_wait();
                socket = listen_path(path, GetParam());
            });
        }
        for (std::thread& relay : relays) {
            relay.join();
        }
        EXPECT_EQ(std::count(sockets.begin(), sockets.end(), -1), kMany - 1);
        EXPECT_EQ(listen_path(path, GetParam()), -1); // it is served
        EXPECT_EQ(errno, EADDRINUSE);
        for (const int socket : sockets) {
            close(socket);
        }
    }
    unlink(path.c_str());
    EXPECT_TRUE(std::filesystem::is_empty(directory.path));
}

INSTANTIATE_TEST_SUITE_P(Types, RelayListenTogether, testing::Values(SOCK_DGRAM, SOCK_STREAM),
                         [](const auto& one) { return one.param == SOCK_DGRAM ? "Datagram" : "Stream"; });

} // namespace
