#include "debug/location_debug.h"

#include "debug_fixture.h"

#include <unistd.h>

using DebugSwitchTest = DebugTest;

TEST_F(DebugSwitchTest, SameModeChangesNothing) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    const auto client = connect_listed(1);
    const std::string before = log();
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    EXPECT_EQ(log(), before);
    handle_text("still here");
    EXPECT_EQ(read_bytes(client->fd, 10), "still here");
}

TEST_F(DebugSwitchTest, FromTcpToSerialClosesTheServerAndOpensTheLine) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), 0);
    EXPECT_THROW(TcpClient{port}, std::runtime_error);
    handle_text("$GPGGA");
    EXPECT_EQ(read_bytes(line.master, 6), "$GPGGA");
    line.write("typed");
    EXPECT_TRUE(wait_until([] { return chip_received() == "typed"; }));
}

TEST_F(DebugSwitchTest, FromSerialToFileClosesTheLineAndItsThreads) {
    const size_t descriptors = open_descriptors();
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), 0);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; }));
    EXPECT_EQ(open_descriptors(), descriptors + 1); // the log file
    handle_text("$GPGGA");
    EXPECT_EQ(directory.read("log.dat"), "$GPGGA");
}

TEST_F(DebugSwitchTest, ClosingKeepsTheMode) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    location_debug_close();
    EXPECT_THROW(TcpClient{port}, std::runtime_error);
    EXPECT_EQ(location_debug_start(), 0);
    const auto client = connect_listed(1);
    handle_text("back");
    EXPECT_EQ(read_bytes(client->fd, 4), "back");
}

TEST_F(DebugSwitchTest, ClosingTwiceDoesNoHarm) {
    for (const uint32_t mode : {DEBUG_MODE_FILE, DEBUG_MODE_SERIAL, DEBUG_MODE_TCP}) {
        ASSERT_EQ(location_debug_set_mode(mode), 0);
        location_debug_close();
        const std::string before = log();
        location_debug_close();
        EXPECT_EQ(log(), before);
    }
}

TEST_F(DebugSwitchTest, SecondStartWithTcpFindsEverythingThere) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    ASSERT_TRUE(wait_until([&] { return log_lines().size() == 3; }));
    EXPECT_EQ(location_debug_start(), 0);
    const std::vector<std::string> lines = log_lines();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 3, lines.end()),
              (std::vector<std::string>{"[LOCSERV] INF: [debug]location_debug_start, msgid exist",
                                        "[LOCSERV] INF: [debug]location_debug_start, tx tid exist",
                                        "[LOCSERV] INF: [debug]location_debug_start, rx tid exist"}));
}

TEST_F(DebugSwitchTest, TakenPortFailsAndALaterStartWorks) {
    const size_t descriptors = open_descriptors();
    const int blocker = hold_port(port);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), -1);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    handle_text("dropped");
    EXPECT_EQ(log_lines(),
              (std::vector<std::string>{"[LOCSERV] ERR: location_socket_server_create_tcp, bind fail, port=" +
                                            std::to_string(port) + " reason=[Address already in use]98",
                                        "[LOCSERV] ERR: [debug] location_debug_handle, msgid is -1"}));
    close(blocker);
    EXPECT_EQ(location_debug_start(), 0);
    connect_listed(1);
}

TEST_F(DebugSwitchTest, AThousandSwitchesLeaveNothingBehind) {
    const size_t descriptors = open_descriptors();
    for (int i = 0; i < 250; ++i) {
        for (const uint32_t mode : {DEBUG_MODE_TCP, DEBUG_MODE_SERIAL, DEBUG_MODE_FILE, DEBUG_MODE_OFF}) {
            ASSERT_EQ(location_debug_set_mode(mode), 0);
            handle_text("$GPGGA");
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; }));
}

TEST_F(DebugSwitchTest, EachSwitchAwayFromTcpLeavesItsClientsSocketsOpenAndNothingElse) {
    constexpr size_t kRounds = 20;
    const size_t descriptors = open_descriptors();
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (size_t i = 0; i < kRounds; ++i) {
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
        clients.push_back(connect_listed(1));
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
    }
    clients.clear();
    EXPECT_EQ(open_descriptors(), descriptors + kRounds);
}
