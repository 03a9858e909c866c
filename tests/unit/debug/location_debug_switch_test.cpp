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

TEST_F(DebugSwitchTest, EachModeClosesTheOneBefore) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), 0);
    EXPECT_THROW(TcpClient{port}, std::runtime_error);
    const size_t descriptors = open_descriptors(); // the line's among them
    line.write("typed");
    EXPECT_TRUE(wait_until([] { return chip_received() == "typed"; }));
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; }));
    EXPECT_EQ(open_descriptors(), descriptors) << "the log file for the line";
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
            if (i == 0) {
                location_debug_close();
                const std::string before = log();
                location_debug_close();
                EXPECT_EQ(log(), before) << "closing twice does no harm";
            }
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; }));
}

TEST_F(DebugSwitchTest, ClosingKeepsTheClientsSocketsUntilTheirPeersAreGone) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    const auto leaves = connect_listed(1);
    const auto resets = connect_listed(2);
    const auto leaves_later = connect_listed(3);
    const auto stays = connect_listed(4);
    const size_t before = open_descriptors();
    location_debug_close();
    EXPECT_EQ(open_descriptors(), before - 2); // the server and the epoll set
    leaves->close();
    resets->reset();
    location_debug_close(); // a close sees who has left
    EXPECT_EQ(open_descriptors(), before - 2 - 4);
    ASSERT_EQ(location_debug_start(), 0);
    EXPECT_EQ(open_descriptors(), before - 4);
    leaves_later->close();
    const auto news = connect_listed(1); // an accept does so too
    EXPECT_EQ(open_descriptors(), before - 4 - 2 + 2);
    stays->send("unheard");
    news->send("heard");
    EXPECT_TRUE(wait_until([] { return chip_received() == "heard"; })) << chip_received();
    EXPECT_EQ(read_now(stays->fd), "");
    stays->send("still connected");
}

TEST_F(DebugSwitchTest, ManyClosesWithClientsThatLeaveUseUpNoDescriptors) {
    const DescriptorLimit limit(30);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0) << i;
        const auto first = connect_listed(1);
        const auto second = connect_listed(2);
        ASSERT_FALSE(HasFailure()) << i;
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0) << i;
    }
}
