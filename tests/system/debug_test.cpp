// The debug outlet from outside: TCP clients, a serial line and the log file, beside a client that follows.
#include "support/harness.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kMostClients = 10;
constexpr size_t kMoreThanBuffersHold = 12'000'000; // a send buffer grows to 4 MB
constexpr int kMostSentences = 2'000'000;           // ten times what that takes

int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    close(fd);
    return ntohs(address.sin_port);
}

struct TcpClient {
    // A receive buffer of 0 is one of the system's usual size.
    explicit TcpClient(int port, int receive_buffer = 0)
        : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receive_buffer > 0) {
            EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer), 0);
        }
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected = wait_until(
            [&] { return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0; });
    }
    ~TcpClient() {
        if (fd >= 0) {
            close(fd);
        }
    }
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    // Reads until the text has come.
    bool wait_text(const std::string& text) {
        return wait_until([&] {
            pollfd readable = {fd, POLLIN, 0};
            char buffer[4096];
            if (poll(&readable, 1, 100) > 0) {
                const ssize_t n = read(fd, buffer, sizeof buffer);
                seen.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            }
            return seen.find(text) != std::string::npos;
        });
    }
    // Reads what is there and returns how much that was.
    size_t take() const {
        static char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    // Whether the peer has closed.
    bool wait_closed() {
        return wait_until([&] {
            char byte = 0;
            return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
        });
    }
    void reset() {
        const linger now = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close(fd);
        fd = -1;
    }

    int fd;
    bool connected = false;
    std::string seen;
};

// A started daemon whose debug outlet is a TCP server.
struct TcpOutlet {
    explicit TcpOutlet(const Arguments& options = {"--rate", "10"})
        : board(options), daemon(board), client(board.socket_path()) {
        board.configure("debug socket ip", "127.0.0.1");
        board.configure("debug socket port", std::to_string(port));
        EXPECT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        EXPECT_EQ(client.ask(TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG), 0);
    }

    int port = free_port();
    SimulatedBoard board;
    DaemonOnBoard daemon;
    TestClient client;
};

struct PseudoTerminal {
    PseudoTerminal() : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        grantpt(master);
        unlockpt(master);
        path = ptsname(master);
    }
    ~PseudoTerminal() {
        close(master);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    // Reads until the bytes have come.
    bool wait_bytes(const std::string& bytes) {
        return wait_until([&] {
            pollfd readable = {master, POLLIN, 0};
            char buffer[4096];
            if (poll(&readable, 1, 100) > 0) {
                const ssize_t n = read(master, buffer, sizeof buffer);
                seen.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            }
            return seen.find(bytes) != std::string::npos;
        });
    }

    int master;
    std::string path;
    std::string seen;
};

} // namespace

TEST(DebugTcp, SeveralClientsSeeTheStreamBesideTheDaemonsClient) {
    TcpOutlet outlet;
    TcpClient first(outlet.port);
    TcpClient second(outlet.port);
    ASSERT_TRUE(first.connected && second.connected);
    EXPECT_TRUE(first.wait_text("GGA,"));
    EXPECT_TRUE(second.wait_text("GGA,"));
    EXPECT_TRUE(outlet.client.receive_code(TAVOR_CODE_POSITION));
}

TEST(DebugTcp, WhatAClientTypesReachesTheChip) {
    TcpOutlet outlet;
    TcpClient engineer(outlet.port);
    ASSERT_TRUE(engineer.wait_text("GGA,"));
    const std::string command = "$PZUL353,1*3B\r\n";
    ASSERT_EQ(write(engineer.fd, command.data(), command.size()), static_cast<ssize_t>(command.size()));
    EXPECT_TRUE(
        wait_until([&] { return outlet.board.ctl({"commands"}).find("PZUL353,1") != std::string::npos; }));
}

TEST(DebugTcp, ClientThatNeverReadsStopsNobody) {
    TcpOutlet outlet({"--full-speed"});
    const TcpClient deaf(outlet.port, 4096);
    TcpClient reader(outlet.port);
    ASSERT_TRUE(reader.wait_text("GGA,"));
    size_t passed = 0; // to the reader, and each client is offered the same
    for (int i = 0; i < kMostSentences && passed < kMoreThanBuffersHold; ++i) {
        ASSERT_TRUE(outlet.client.receive_code(TAVOR_CODE_NMEA)) << i;
        passed += reader.take();
    }
    EXPECT_GE(passed, kMoreThanBuffersHold);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

TEST(DebugTcp, ResetClientCostsNobodyAnything) {
    TcpOutlet outlet;
    TcpClient reset(outlet.port);
    TcpClient stays(outlet.port);
    ASSERT_TRUE(reset.wait_text("GGA,"));
    reset.reset();
    stays.seen.clear();
    EXPECT_TRUE(stays.wait_text("GGA,"));
    EXPECT_TRUE(stays.wait_text("RMC,"));
    EXPECT_TRUE(outlet.daemon.process->running());
}

TEST(DebugTcp, EleventhClientIsClosedAtOnce) {
    TcpOutlet outlet;
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 0; i < kMostClients; ++i) {
        clients.push_back(std::make_unique<TcpClient>(outlet.port));
        ASSERT_TRUE(clients.back()->wait_text("$"));
    }
    TcpClient eleventh(outlet.port);
    EXPECT_TRUE(eleventh.wait_closed());
    EXPECT_TRUE(outlet.daemon.wait_log("[LOCSERV] ERR: location_debug_add_client, 10 >= 10\n"));
    clients[0]->seen.clear();
    EXPECT_TRUE(clients[0]->wait_text("GGA,"));
}

TEST(DebugTcp, StopIsAnsweredWhileATypedByteWaitsForASilentChip) {
    TcpOutlet outlet;
    TcpClient engineer(outlet.port);
    ASSERT_TRUE(engineer.wait_text("GGA,"));
    outlet.board.fault("silence", "on");
    ASSERT_EQ(write(engineer.fd, "x", 1), 1);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_DEBUG_FILE, TAVOR_CODE_DEBUG), 0);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG), 0);
    TcpClient again(outlet.port);
    ASSERT_EQ(write(again.fd, "x", 1), 1);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

TEST(DebugTcp, AThousandModeSwitchesLeakNeitherDescriptorsNorThreads) {
    constexpr int kRounds = 250;
    const PseudoTerminal line;
    TcpOutlet outlet;
    outlet.board.configure("debug port path", line.path);
    EXPECT_EQ(outlet.client.ask(TAVOR_REQUEST_DEBUG_OFF, TAVOR_CODE_DEBUG), 0);
    ASSERT_TRUE(outlet.client.receive_code(TAVOR_CODE_POSITION)) << "the link is open: it counts below";
    const size_t threads = outlet.daemon.threads();
    const size_t descriptors = outlet.daemon.descriptors();
    for (int i = 0; i < kRounds; ++i) {
        for (const tavor_request_type mode : {TAVOR_REQUEST_DEBUG_TCP, TAVOR_REQUEST_DEBUG_FILE,
                                              TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_REQUEST_DEBUG_OFF}) {
            ASSERT_EQ(outlet.client.ask(mode, TAVOR_CODE_DEBUG), 0) << i << ", mode " << mode;
        }
    }
    EXPECT_TRUE(wait_until([&] { return outlet.daemon.threads() <= threads; })) // joined, but not yet gone
        << outlet.daemon.threads();
    EXPECT_EQ(outlet.daemon.descriptors(), descriptors);
}

class DebugSerial : public testing::TestWithParam<int> {};

TEST_P(DebugSerial, BinaryDataPassesBothWays) {
    PseudoTerminal line;
    const SimulatedBoard board({"--source", "none"});
    board.configure("debug port path", line.path);
    board.configure("debug port flow control", std::to_string(GetParam()));
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    ASSERT_EQ(client.ask(TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_CODE_DEBUG), 0);
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);

    board.ctl({"send", "--hex", "41111342774300ff"});
    const bool escaped = GetParam() == 1;
    EXPECT_TRUE(line.wait_bytes(escaped ? std::string("A\x77\xEE\x77\xEC"
                                                      "B\x77\x88"
                                                      "C\0\xFF",
                                                      11)
                                        : std::string("A\x11\x13"
                                                      "BwC\0\xFF",
                                                      8)));

    const std::string typed = escaped ? "$PZUL353,\x77\x88*7D\r\n" : "$PZUL353,w*7D\r\n";
    ASSERT_EQ(write(line.master, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    EXPECT_TRUE(wait_until([&] { return board.ctl({"commands"}).find("PZUL353,w") != std::string::npos; }));
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

INSTANTIATE_TEST_SUITE_P(FlowControl, DebugSerial, testing::Values(0, 1, 2));

TEST(DebugSerial, LineThatHangsUpLeavesStopAnswered) {
    const SimulatedBoard board({"--rate", "10"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    {
        const PseudoTerminal line;
        board.configure("debug port path", line.path);
        ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        ASSERT_EQ(client.ask(TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_CODE_DEBUG), 0);
    }
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    }
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

TEST(DebugFile, LogFileHoldsWhatTheChipSentByteForByte) {
    const SimulatedBoard board({"--source", "none"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    ASSERT_EQ(client.ask(TAVOR_REQUEST_DEBUG_FILE, TAVOR_CODE_DEBUG), 0);
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);

    std::string sent;
    for (int i = 0; i < 20; ++i) {
        std::string block(static_cast<size_t>(i) * 37 + 1, static_cast<char>(i * 11));
        block += "\r\n";
        std::string text;
        for (const char byte : block) {
            constexpr char kDigits[] = "0123456789abcdef";
            text += kDigits[static_cast<uint8_t>(byte) >> 4];
            text += kDigits[static_cast<uint8_t>(byte) & 15];
        }
        board.ctl({"send", "--hex", text});
        sent += block;
    }
    board.ctl({"send", "GNTXT,01,01,02,end"});
    ASSERT_TRUE(wait_until([&] {
        const auto sentence = client.receive_code(TAVOR_CODE_NMEA);
        return sentence && payload_text(*sentence).rfind("$GNTXT", 0) == 0;
    }));
    ASSERT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    const std::string log = board.directory.read("etc/default/tavor/log.dat");
    EXPECT_EQ(log.substr(0, sent.size()), sent);
    EXPECT_EQ(log.substr(sent.size()).rfind("$GNTXT,01,01,02,end*", 0), 0U);
}

TEST(DebugTcp, GpsdGetsAFixFromTheOutlet) {
    if (access("/usr/sbin/gpsd", X_OK) != 0) {
        GTEST_SKIP() << "gpsd is not installed";
    }
    TcpOutlet outlet;
    const int port = free_port();
    const Child gpsd({"/usr/sbin/gpsd", "-N", "-n", "-S", std::to_string(port),
                      "tcp://127.0.0.1:" + std::to_string(outlet.port)},
                     outlet.board.directory.path / "gpsd.log");
    TcpClient watcher(port);
    ASSERT_TRUE(watcher.connected);
    const std::string watch = "?WATCH={\"enable\":true,\"json\":true};\n";
    ASSERT_EQ(write(watcher.fd, watch.data(), watch.size()), static_cast<ssize_t>(watch.size()));
    EXPECT_TRUE(watcher.wait_text("\"mode\":3")) << watcher.seen << outlet.board.directory.read("gpsd.log");
}
