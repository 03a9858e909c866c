#include "debug/location_debug.h"

#include "debug_fixture.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const std::string kTooSlow = " is too slow, blocks are dropped";
const std::string kDropped = " blocks dropped";

struct DebugTcpTest : DebugTest {
    void SetUp() override {
        DebugTest::SetUp();
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    }

    // The outlet's own descriptor of the n-th client that connected.
    int descriptor_of(size_t n) const {
        size_t seen = 0;
        for (const std::string& entry : log_lines()) {
            int fd = -1;
            if (sscanf(entry.c_str(), "[LOCSERV] INF: [debug]socket AT new client connected fd=[%d]", &fd) ==
                    1 &&
                seen++ == n) {
                return fd;
            }
        }
        return -1;
    }

    bool waits_for_reading(size_t n, int bytes) const {
        int waiting = 0;
        return ioctl(descriptor_of(n), FIONREAD, &waiting) == 0 && waiting == bytes;
    }
};

std::string numbered_block(int number) {
    return "<" + std::to_string(100'000 + number) + std::string(1000, 'x') + ">";
}

// How many such blocks stand whole and in order at the start of the stream.
int whole_blocks(const std::string& stream) {
    const size_t size = numbered_block(0).size();
    int number = 0;
    while (stream.compare(static_cast<size_t>(number) * size, size, numbered_block(number)) == 0) {
        ++number;
    }
    return number;
}

} // namespace

TEST_F(DebugTcpTest, StartLogsItsSteps) {
    ASSERT_TRUE(wait_until([&] { return log_count("_task") == 2; }));
    std::vector<std::string> lines = log_lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].find("[LOCSERV] INF: [debug]location_debug_start, creat msg:"), 0U);
    std::sort(lines.begin() + 1, lines.end());
    EXPECT_EQ(lines[1], "[LOCSERV] INF: [debug]location_debug_rx_task");
    EXPECT_EQ(lines[2], "[LOCSERV] INF: [debug]location_debug_tx_task");
}

TEST_F(DebugTcpTest, EveryClientGetsTheStreamByteForByte) {
    const auto first = connect_listed(1);
    const auto second = connect_listed(2);
    handle_text(binary_data());
    handle_text("more");
    for (const auto* client : {&first, &second}) {
        EXPECT_EQ(read_bytes((*client)->fd, binary_data().size() + 4), binary_data() + "more");
    }
}

TEST_F(DebugTcpTest, WhatAClientTypesGoesToTheChipUnchanged) {
    const auto client = connect_listed(1);
    client->send(binary_data());
    EXPECT_TRUE(wait_until([&] { return chip_received().size() == binary_data().size(); }));
    EXPECT_EQ(chip_received(), binary_data());
}

TEST_F(DebugTcpTest, LongInputIsForwardedIn256BytePieces) {
    const auto client = connect_listed(1);
    chip_silent(true); // until all the input is there
    client->send("first");
    ASSERT_TRUE(wait_until([] { return chip_writes().size() == 1; }));
    client->send(std::string(600, 'x'));
    ASSERT_TRUE(wait_until([&] { return waits_for_reading(0, 600); }));
    chip_silent(false);
    ASSERT_TRUE(wait_until([] { return chip_received().size() == 605; }));
    EXPECT_EQ(chip_writes(), (std::vector<std::string>{"first", std::string(256, 'x'), std::string(256, 'x'),
                                                       std::string(88, 'x')}));
}

TEST_F(DebugTcpTest, ElevenClientsAreOneTooMany) {
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 1; i <= 10; ++i) {
        clients.push_back(connect_listed(i));
    }
    const TcpClient eleventh(port);
    EXPECT_TRUE(eleventh.ends());
    EXPECT_EQ(log_count("[LOCSERV] ERR: location_debug_add_client, 10 >= 10"), 1U);
    EXPECT_EQ(log_count("socket AT new client"), 10U);
    handle_text("still here");
    for (const auto& client : clients) {
        EXPECT_EQ(read_bytes(client->fd, 10), "still here");
    }

    const size_t descriptors = open_descriptors();
    clients.erase(clients.begin());
    ASSERT_TRUE(wait_until([&] { return open_descriptors() == descriptors - 2; })); // both ends
    clients.push_back(connect_listed(10));                                          // room again
    handle_text("again");
    EXPECT_EQ(read_bytes(clients.back()->fd, 5), "again");
}

TEST_F(DebugTcpTest, ClientThatLeavesIsClosedAndTheOthersKeepReceiving) {
    const auto closes = connect_listed(1);
    const auto resets = connect_listed(2);
    const auto stays = connect_listed(3);
    const size_t descriptors = open_descriptors();
    closes->close();
    resets->reset();
    handle_text("$GPGGA"); // may meet the dead sockets
    EXPECT_EQ(read_bytes(stays->fd, 6), "$GPGGA");
    EXPECT_TRUE(wait_until([&] { return open_descriptors() == descriptors - 4; })); // both ends
    handle_text("$GPGSV");
    EXPECT_EQ(read_bytes(stays->fd, 6), "$GPGSV");
    connect_listed(2);
}

TEST_F(DebugTcpTest, SlowClientGetsWholeBlocksAndItsLossIsToldOnce) {
    const auto slow = connect_listed(1, 200'000);
    const int few_bytes = 400'000; // else the buffer grows to some megabytes
    ASSERT_EQ(setsockopt(descriptor_of(0), SOL_SOCKET, SO_SNDBUF, &few_bytes, sizeof few_bytes), 0);
    const auto quick = connect_listed(2);
    const std::string name = "[debug]socket AT client fd=[" + std::to_string(descriptor_of(0)) + "]";
    int blocks = 0;
    const auto pass_a_block = [&] {
        const std::string block = numbered_block(blocks++);
        handle_text(block);
        ASSERT_TRUE(read_bytes(quick->fd, block.size()) == block); // a quick client loses nothing
    };
    ASSERT_TRUE(wait_until([&] {
        pass_a_block();
        return HasFatalFailure() || log_count(kTooSlow) > 0;
    }));
    const int passed = blocks - 1;
    EXPECT_EQ(log_count("[LOCSERV] WRN: " + name + kTooSlow), 1U);
    std::string seen = read_bytes(slow->fd, static_cast<size_t>(passed) * numbered_block(0).size() / 8);
    pass_a_block(); // there is room for it, but the client has not yet taken all
    EXPECT_EQ(log_count(kDropped), 0U);

    ASSERT_TRUE(wait_until([&] {
        pass_a_block();
        seen += read_now(slow->fd);
        return HasFatalFailure() || log_count(kDropped) > 0;
    }));
    handle_text("[last]");
    seen += read_until(slow->fd, "[last]");
    EXPECT_EQ(whole_blocks(seen), passed);
    EXPECT_EQ(seen.substr(static_cast<size_t>(passed) * numbered_block(0).size()),
              numbered_block(blocks - 1) + "[last]");
    EXPECT_EQ(log_count("[LOCSERV] INF: " + name + ", " + std::to_string(blocks - 1 - passed) + kDropped),
              1U);
    EXPECT_EQ(log_count(kTooSlow), 1U);
}

TEST_F(DebugTcpTest, RestOfABlockThatWasTakenInPartGoesFirst) {
    const auto slow = connect_listed(1, 400'000);
    const std::string block = "<" + std::string(8'000'000, 'x') + ">"; // more than a connection holds
    handle_text(block);
    std::string seen;
    ASSERT_TRUE(wait_until([&] {
        handle_text("[more]");
        seen += read_now(slow->fd);
        return seen.find("[more]") != std::string::npos;
    }));
    EXPECT_EQ(seen.find("[more]"), block.size());
    EXPECT_EQ(seen.compare(0, block.size(), block), 0);
}

TEST_F(DebugTcpTest, LossOfAClientThatLeavesIsTold) {
    const auto slow = connect_listed(1, 4096);
    ASSERT_TRUE(wait_until([&] {
        handle_text(std::string(60'000, 'x'));
        return log_count(kTooSlow) > 0;
    }));
    slow->close();
    EXPECT_TRUE(wait_until([&] { return log_count(kDropped) > 0; }));
}

TEST_F(DebugTcpTest, NewClientMakesTheLastInputGoToTheChipAgain) {
    const auto first = connect_listed(1);
    first->send("abc");
    ASSERT_TRUE(wait_until([] { return chip_writes().size() == 1; }));
    const auto second = connect_listed(2);
    ASSERT_TRUE(wait_until([] { return chip_writes().size() == 2; }));
    EXPECT_EQ(chip_writes(), (std::vector<std::string>{"abc", "abc"}));

    const size_t descriptors = open_descriptors();
    first->close(); // the last read is then an empty one
    ASSERT_TRUE(wait_until([&] { return open_descriptors() == descriptors - 2; }));
    second->send("de");
    ASSERT_TRUE(wait_until([] { return chip_writes().size() == 3; }));
    EXPECT_EQ(chip_writes()[2], "de");
}

TEST_F(DebugTcpTest, OfTenClientsThatSendAtOnceOnlyTheLastOneReadIsHeard) {
    constexpr size_t kClients = 10;
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int listed = 1; listed <= static_cast<int>(kClients); ++listed) {
        clients.push_back(connect_listed(listed));
    }
    const auto each = [&](int bytes) {
        size_t n = 0;
        while (n < kClients && waits_for_reading(n, bytes)) {
            ++n;
        }
        return n == kClients;
    };
    chip_silent(true); // keeps the task busy while all send
    clients[0]->send("1");
    ASSERT_TRUE(wait_until([] { return chip_writes().size() == 1; }));
    for (const auto& client : clients) {
        client->send("AAA");
    }
    ASSERT_TRUE(wait_until([&] { return each(3); }));
    chip_silent(false);
    ASSERT_TRUE(wait_until([&] { return each(0); }));
    clients[0]->send("end");
    ASSERT_TRUE(wait_until([] { return chip_received().ends_with("end"); }));
    EXPECT_EQ(chip_writes(), (std::vector<std::string>{"1", "AAA", "end"}));
}

TEST_F(DebugTcpTest, SocketKeptBehindAClosedOutletIsProbed) {
    const auto client = connect_listed(1);
    const int kept = descriptor_of(0);
    location_debug_close();
    int probed = 0; // else a peer that vanished without a word would keep it for ever
    socklen_t size = sizeof probed;
    ASSERT_EQ(getsockopt(kept, SOL_SOCKET, SO_KEEPALIVE, &probed, &size), 0);
    EXPECT_EQ(probed, 1);
}

TEST_F(DebugTcpTest, ClosingReturnsWhileAByteWaitsForASilentChip) {
    const auto client = connect_listed(1);
    chip_silent(true);
    const size_t before = chip_writes().size();
    client->send("x");
    ASSERT_TRUE(wait_until([&] { return chip_writes().size() == before + 1; }));
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; }));
}

TEST_F(DebugTcpTest, StreamFlowsWhileAByteWaitsForASilentChip) {
    const auto client = connect_listed(1);
    chip_silent(true);
    client->send("x");
    handle_text("$GPGGA");
    EXPECT_EQ(read_bytes(client->fd, 6), "$GPGGA");
}

TEST_F(DebugTcpTest, RunningOutOfDescriptorsMakesNoBusyLoopAndForwardsNothing) {
    const auto engineer = connect_listed(1);
    engineer->send("abc");
    ASSERT_TRUE(wait_until([] { return chip_received() == "abc"; }));
    std::optional<DescriptorLimit> limit(1);
    const TcpClient client(port); // takes the last one
    const auto tries = [&] { return log_count("[LOCSERV] ERR: [debug]location_debug_rx_task, accept fail"); };
    ASSERT_TRUE(wait_until([&] { return tries() >= 1; }));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_until([&] { return tries() >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(log_count("location_socket_server_accept_new_tcp_connect, accept fail, serverfd="), tries());
    EXPECT_EQ(chip_received(), "abc"); // what was typed last is not repeated by accepts that fail

    limit.reset();
    EXPECT_TRUE(wait_until([&] { return log_count("socket AT new client connected") == 2; }));
    EXPECT_TRUE(wait_until([] { return chip_received() == "abcabc"; })); // but by the one that succeeds
}
