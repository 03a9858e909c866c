// The debug outlet from outside: TCP clients beside a client that follows.
#include "support/debug_support.h"
#include "support/harness.h"

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr size_t kMoreThanBuffersHold = 12'000'000; // a send buffer grows to 4 MB
constexpr int kMostSentences = 600'000;             // three times what that takes

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
