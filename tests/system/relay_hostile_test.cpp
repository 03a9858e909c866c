// The relay among TCP clients that mean ill: whatever they do, one that behaves well gets every sentence, and
// what they took, descriptors and memory, is given back.
#include "support/harness.h"
#include "support/relay_loop.h"
#include "support/tcp_peer.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr size_t kClientsMax = 2000;
constexpr long kGrowthMax = 1024L * 1024; // bytes that the allocator may keep for later
constexpr rlim_t kDescriptors = 4096;     // of the test, and of the relay

using Peers = std::vector<std::unique_ptr<TcpPeer>>;

// How a hostile client begins; how it ends is another matter.
const std::string kBeginnings[] = {
    "",                                                  // says nothing
    "?WATCH={\"enable\":true,\"js",                      // half a request
    std::string("\x00\xff{]}\"\\;?;?=;\n$PZUL001*", 23), // garbage
    "?" + std::string(9000, 'A'),                        // a line that is too long
    "?WATCH={\"json\":" + std::string(4000, '['),        // deep
    "?WATCH={\"enable\":true,\"nmea\":true};\n",         // watches, and reads nothing
    "?WATCH={\"enable\":\"x\",\"enable\":2,\"raw\":[]};?DEVICE={\"path\":1};?POLL=;;\n",
};

struct RelayHostile : testing::Test {
    // Under a limit on the relay's descriptors, unless it is 0.
    void start(size_t limit_of_descriptors = 0) {
        const std::string limit =
            limit_of_descriptors > 0 ? "ulimit -n " + std::to_string(limit_of_descriptors) + "; " : "";
        relay = std::make_unique<Child>(Arguments{"/bin/sh", "-c", limit + "exec \"$0\" \"$@\"",
                                                  TAVOR_RELAY_PROGRAM, "--daemon", daemon.path, "--socket",
                                                  (directory.path / "relay").string(), "--listen",
                                                  std::to_string(port)},
                                        (directory.path / "relay.log").string());
        ASSERT_TRUE(wait_until([&] {
            daemon.turn();
            return daemon.count(TAVOR_REQUEST_START) > 0;
        }));
        good = std::make_unique<TcpPeer>(port);
        ASSERT_TRUE(good->send("?WATCH={\"enable\":true,\"nmea\":true};\n"));
        ASSERT_TRUE(until([&] { return good->got.find("$") != std::string::npos; }));
        sent.erase(0, sent.find(good->got.substr(good->got.find('$'), kFirstLength)));
        good->got.erase(0, good->got.find('$'));
    }
    // One more sentence, when there is room for it.
    void push() {
        std::string number = std::to_string(next);
        number.insert(0, 8 - number.size(), '0');
        const std::string sentence = "$GNTXT," + number + "*00\r\n";
        if (daemon.send(relay_response(TAVOR_CODE_NMEA, 0, sentence))) {
            sent += sentence;
            ++next;
        }
    }
    // The stream goes on while the condition is waited for.
    bool until(const std::function<bool()>& condition) {
        return wait_until([&] {
            daemon.turn();
            push();
            good->read();
            return condition();
        });
    }
    // The one that behaves well has got every sentence, in order.
    bool lost_nothing() {
        wait_until([&] {
            good->read();
            return good->got.size() >= sent.size();
        });
        return good->got == sent;
    }
    size_t descriptors() const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(relay->pid) + "/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
    long memory() const {
        std::ifstream file("/proc/" + std::to_string(relay->pid) + "/statm");
        long all = 0;
        long resident = 0;
        file >> all >> resident;
        return resident * sysconf(_SC_PAGESIZE);
    }
    // Clients that begin in every way there is.
    Peers invite(size_t count) {
        Peers peers;
        for (size_t i = 0; i < count; ++i) {
            peers.push_back(std::make_unique<TcpPeer>(port, 2048));
            peers.back()->send(kBeginnings[i % std::size(kBeginnings)]);
            push();
            good->read();
        }
        return peers;
    }
    // They leave, each third without a farewell, and the relay has forgotten them.
    bool dismiss(Peers peers) {
        for (size_t i = 0; i < peers.size(); ++i) {
            peers[i]->end(i % 3 == 0);
        }
        return until([&] { return descriptors() == before; });
    }
    // Rounds of such visits. Bytes that are not given back; what the first round took doesn't count.
    long growth(size_t clients, int rounds) {
        long first = 0;
        for (int i = 0; i < rounds; ++i) {
            EXPECT_TRUE(dismiss(invite(clients)));
            first = i == 0 ? memory() : first;
        }
        return memory() - first;
    }

    static constexpr size_t kFirstLength = 20; // of a sentence, with its number

    PrivateDir directory;
    PlayedDaemon daemon{(directory.path / "daemon").string()};
    int port = free_tcp_port();
    std::unique_ptr<Child> relay;
    std::unique_ptr<TcpPeer> good;
    std::string sent;
    int next = 0;
    size_t before = 0; // descriptors
};

void expect_no_growth([[maybe_unused]] long bytes) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(bytes, kGrowthMax);
#endif
}

TEST_F(RelayHostile, TwoHundredThatComeAndGoLeaveNothingBehind) {
    start();
    before = descriptors();
    expect_no_growth(growth(200, 4));
    EXPECT_TRUE(lost_nothing());
    EXPECT_EQ(relay->end(SIGTERM), 0);
}

TEST_F(RelayHostile, BeyondTwoThousandWhoWatchesKeepsItsPlaceAndAllIsGivenBack) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < kDescriptors) {
        GTEST_SKIP() << "the test may not have so many descriptors";
    }
    limit.rlim_cur = std::max(limit.rlim_cur, kDescriptors);
    setrlimit(RLIMIT_NOFILE, &limit);
    start();
    before = descriptors();
    Peers peers = invite(kClientsMax + 10);
    ASSERT_TRUE(until([&] { return descriptors() == before + kClientsMax - 1; })); // the good one is one
    EXPECT_TRUE(until([&] { return !peers.front()->read(); }));                    // it watches nothing
    EXPECT_TRUE(until([&] {
        peers.back()->read();
        return peers.back()->got.find("\"VERSION\"") != std::string::npos;
    }));
    ASSERT_TRUE(dismiss(std::move(peers)));
    const long first = memory();
    ASSERT_TRUE(dismiss(invite(kClientsMax - 1)));
    expect_no_growth(memory() - first);
    EXPECT_TRUE(lost_nothing());
    EXPECT_EQ(relay->end(SIGTERM), 0);
}

TEST_F(RelayHostile, WithoutDescriptorsTheNewOnesWaitAndTheOldOnesAreServed) {
    constexpr size_t kFew = 32;
    start(kFew);
    before = descriptors();
    Peers peers = invite(100);
    ASSERT_TRUE(until([&] { return descriptors() >= kFew; }));
    ASSERT_TRUE(good->send("?DEVICES;\n"));
    ASSERT_TRUE(until([&] { return good->got.find("\"DEVICES\"") != std::string::npos; }));
    const size_t report = good->got.find('{');
    good->got.erase(report, good->got.find('\n', report) + 1 - report);
    ASSERT_TRUE(dismiss(std::move(peers)));
    TcpPeer late(port);
    EXPECT_TRUE(until([&] {
        late.read();
        return late.got.find("\"VERSION\"") != std::string::npos;
    }));
    EXPECT_TRUE(lost_nothing());
    EXPECT_EQ(relay->end(SIGTERM), 0);
}

TEST_F(RelayHostile, RequestsThatComeByteByByteHoldUpNobody) {
    start();
    before = descriptors();
    Peers peers = invite(0);
    for (int i = 0; i < 50; ++i) {
        peers.push_back(std::make_unique<TcpPeer>(port));
    }
    const std::string request = "?WATCH={\"enable\":true,\"json\":true};";
    for (const char byte : request) {
        for (const auto& peer : peers) {
            ASSERT_TRUE(peer->send(std::string(1, byte)));
        }
        push();
        good->read();
    }
    for (const auto& peer : peers) {
        EXPECT_TRUE(until([&] {
            peer->read();
            return peer->got.find("\"WATCH\"") != std::string::npos;
        }));
    }
    ASSERT_TRUE(dismiss(std::move(peers)));
    EXPECT_TRUE(lost_nothing());
    EXPECT_EQ(relay->end(SIGTERM), 0);
}

} // namespace
