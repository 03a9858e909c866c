// What must not stop the daemon: killed predecessors, random requests, clients that do not read.
#include "support/harness.h"

#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sched.h>

namespace {

// Whether requests are answered and sentences flow.
bool serves(const TestClient& client) {
    return client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START) == 0 && client.receive_code(TAVOR_CODE_POSITION);
}

void drain(const TestClient& client) {
    while (client.receive(std::chrono::milliseconds(0))) {
    }
}

std::string random_bytes(std::mt19937& random, size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

} // namespace

using Hostile = BoardTest;

TEST_F(Hostile, KilledTwentyTimesInTrafficStartsEveryTime) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(serves(client)) << "run " << i;
        daemon.kill();
        daemon.restart();
    }
}

TEST_F(Hostile, RandomDatagramsAreSurvived) {
    std::mt19937 random(7);

    for (int i = 0; i < 2000; ++i) {
        std::string datagram = random_bytes(random, random() % 2001);
        if (datagram.size() >= 4 && random() % 2 == 0) {
            datagram[0] = static_cast<char>(random() % 12);
            datagram[1] = datagram[2] = datagram[3] = 0;
            if (datagram[0] == TAVOR_REQUEST_DOWNLOAD) { // runs long, by design
                datagram[0] = TAVOR_REQUEST_COMMAND;
            }
        }
        ASSERT_TRUE(client.send_bytes(datagram.data(), datagram.size())) << "datagram " << i;
        drain(client);
    }
    EXPECT_TRUE(wait_until([&] { return serves(client); }));
    EXPECT_TRUE(daemon.process->running());
}

// The kernel's default, and what systemd makes of it.
class QueueLength : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        const auto set_length = [] {
            return static_cast<bool>(std::ofstream("/proc/sys/net/unix/max_dgram_qlen")
                                     << GetParam() << std::flush);
        };
        if (unshare(CLONE_NEWNET) != 0 || !set_length()) {
            GTEST_SKIP()
                << "needs the right to set net.unix.max_dgram_qlen in a network namespace of its own";
        }
    }
};

// For how long it is waited for is shown on a clock of their own by the unit tests of the reply.
TEST_P(QueueLength, ClientThatNeverReadsKeepsNoAnswerFromAnother) {
    const SimulatedBoard board({"--full-speed"});
    const DaemonOnBoard daemon(board);
    const TestClient deaf(board.socket_path());
    const TestClient other(board.socket_path());

    ASSERT_TRUE(deaf.send(TAVOR_REQUEST_START));
    ASSERT_TRUE(daemon.wait_log("[LOCSERV] ERR: tavor_send_response, sendto error"));
    EXPECT_EQ(other.ask(TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION), 0);
}

TEST_P(QueueLength, ResultForAClientThatPausesArrives) {
    const SimulatedBoard board({"--rate", "10"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_TRUE(client.send(TAVOR_REQUEST_START));
    ASSERT_TRUE(daemon.wait_log("[LOCSERV] ERR: tavor_send_response, sendto error"));
    EXPECT_EQ(client.ask(TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION), 0);
}

INSTANTIATE_TEST_SUITE_P(Lengths, QueueLength, testing::Values(10, 512), testing::PrintToStringParamName());
