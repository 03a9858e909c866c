// The debug outlet from outside: TCP clients and a slow serial line, beside a client that follows.
#include "support/debug_support.h"
#include "support/harness.h"

#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr size_t kMoreThanBuffersHold = 12'000'000; // a send buffer grows to 4 MB
constexpr int kMostSentences = 600'000;             // three times what that takes

// Seconds of the day that a sentence with its time in the first field tells.
double seconds_of_day(const std::string& sentence) {
    int hours = 0;
    int minutes = 0;
    double seconds = 0;
    EXPECT_EQ(sscanf(sentence.c_str(), "$%*[A-Z],%2d%2d%lf", &hours, &minutes, &seconds), 3) << sentence;
    return hours * 3600 + minutes * 60 + seconds;
}

// The message queue that the daemon's outlet says it has made, -1 before that.
int debug_queue(const DaemonOnBoard& daemon) {
    const std::string log = daemon.log();
    const std::string text = "location_debug_start, creat msg:";
    const size_t found = log.find(text);
    return found == std::string::npos ? -1 : std::stoi(log.substr(found + text.size()));
}

size_t count_of(const std::string& log, const std::string& text) {
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

// A started daemon whose debug outlet is a TCP server.
struct TcpOutlet {
    explicit TcpOutlet(const Arguments& options = {"--rate", "10"})
        : board(options), daemon(board), client(board.socket_path()) {
        board.configure("debug socket ip", "127.0.0.1");
        board.configure("debug socket port", std::to_string(port));
        EXPECT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        EXPECT_EQ(client.ask(TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG), 0);
    }

    uint16_t port = free_port();
    SimulatedBoard board;
    DaemonOnBoard daemon;
    TestClient client;
};

} // namespace

TEST(DebugTcp, SeveralClientsSeeTheStreamAndWhatOneTypesReachesTheChip) {
    const TcpOutlet outlet;
    const TcpClient first(outlet.port);
    const TcpClient second(outlet.port);
    EXPECT_TRUE(first.gets("GGA,"));
    EXPECT_TRUE(second.gets("GGA,"));
    EXPECT_TRUE(outlet.client.receive_code(TAVOR_CODE_POSITION));
    second.send("$PZUL353,1*3B\r\n");
    EXPECT_TRUE(
        wait_until([&] { return outlet.board.ctl({"commands"}).find("PZUL353,1") != std::string::npos; }));
}

TEST(DebugTcp, ClientThatNeverReadsStopsNobody) {
    TcpOutlet outlet({"--full-speed"});
    const TcpClient deaf(outlet.port, 4096);
    TcpClient reader(outlet.port);
    ASSERT_TRUE(reader.gets("GGA,"));
    size_t passed = 0; // to the reader, and each client is offered the same
    for (int i = 0; i < kMostSentences && passed < kMoreThanBuffersHold; ++i) {
        ASSERT_TRUE(outlet.client.receive_code(TAVOR_CODE_NMEA)) << i;
        passed += read_now(reader.fd).size();
    }
    EXPECT_GE(passed, kMoreThanBuffersHold);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

TEST(DebugTcp, StopIsAnsweredWhileATypedByteWaitsForASilentChip) {
    TcpOutlet outlet;
    TcpClient engineer(outlet.port);
    ASSERT_TRUE(engineer.gets("GGA,"));
    outlet.board.fault("silence", "on");
    engineer.send("x");
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_DEBUG_FILE, TAVOR_CODE_DEBUG), 0);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG), 0);
    TcpClient again(outlet.port);
    again.send("x");
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

using DebugSerial = BoardTest;

// A pseudo terminal has no speed: it is full from the start, and its peer reads slowly, 1000 bytes a second.
// The queue is cut to four blocks, so that it is full within moments instead of minutes.
TEST_F(DebugSerial, SlowLineHoldsUpNobodyAndItsLossIsTold) {
    constexpr int kRounds = 80; // of a tenth of a second each
    constexpr double kMostSecondsBehind = 1;
    constexpr double kSecondsPerDay = 86400;
    const PseudoTerminal line;
    board.configure("debug port path", line.path);
    ASSERT_EQ(client.ask(TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_CODE_DEBUG), 0);
    limit_queue(debug_queue(daemon), 4);
    line.fill();
    start();
    std::optional<double> first; // host's clock less the chip's at the first position
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < kRounds;) {
        const auto sentence = client.receive_code(TAVOR_CODE_NMEA);
        ASSERT_TRUE(sentence);
        const std::string text = payload_text(*sentence);
        if (text.find("GGA,") == std::string::npos) {
            continue;
        }
        ++round; // the chip tells one position a round
        read_bytes(line.master, 100);
        const std::chrono::duration<double> now = std::chrono::steady_clock::now() - start;
        const double ahead = now.count() - seconds_of_day(text);
        first = first.value_or(ahead);
        ASSERT_LT(std::remainder(ahead - *first, kSecondsPerDay), kMostSecondsBehind) << "round " << round;
    }
    EXPECT_EQ(client.ask(TAVOR_REQUEST_DEBUG_OFF, TAVOR_CODE_DEBUG), 0);
    const size_t begins = count_of(daemon.log(), "location_debug_handle, send Fail!");
    EXPECT_GE(begins, 1U);
    EXPECT_LE(begins, 8U) << "told each time the queue is full, not with each block";
    EXPECT_EQ(count_of(daemon.log(), " blocks dropped"), begins);
}

TEST(DebugTcp, GpsdGetsAFixFromTheOutlet) {
    if (access("/usr/sbin/gpsd", X_OK) != 0) {
        GTEST_SKIP() << "gpsd is not installed";
    }
    TcpOutlet outlet;
    const uint16_t port = free_port();
    const Child gpsd({"/usr/sbin/gpsd", "-b", "-N", "-n", "-S", std::to_string(port),
                      "tcp://127.0.0.1:" + std::to_string(outlet.port)},
                     outlet.board.directory.path / "gpsd.log");
    std::unique_ptr<TcpClient> watcher;
    ASSERT_TRUE(wait_until([&] { // until it listens
        try {
            watcher = std::make_unique<TcpClient>(port);
        } catch (const std::runtime_error&) {
            return false;
        }
        return true;
    }));
    watcher->send("?WATCH={\"enable\":true,\"json\":true};\n");
    EXPECT_TRUE(watcher->gets("\"mode\":3")) << outlet.board.directory.read("gpsd.log");
}
