#include "gpsd/gpsd.h"

#include "gnss/gnss.h"
#include "gpsd/gpsd_clients.h"
#include "hub/hub.h"
#include "support/relay_loop.h"
#include "support/tcp_peer.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Json = nlohmann::json;

std::function<void(const timespec&)> in_sleep; // is called in place of the next sleep

const std::string kWatchJson = "?WATCH={\"enable\":true,\"json\":true};\n";
const std::string kWatchNmea = "?WATCH={\"enable\":true,\"nmea\":true};\n";

} // namespace

extern "C" int __real_nanosleep(const timespec* wait, timespec* left);
extern "C" int __wrap_nanosleep(const timespec* wait, timespec* left) {
    if (!in_sleep) {
        return __real_nanosleep(wait, left);
    }
    std::exchange(in_sleep, nullptr)(*wait);
    return 0;
}

namespace {

struct RelayGpsd : testing::Test {
    RelayGpsd() {
        loop.open(false);
        gnss_open();
        open_port(kShortSecond);
        loop.start_daemon();
    }
    ~RelayGpsd() override {
        gpsd_close();
        gnss_close();
    }

    void open_port(std::chrono::milliseconds second) const {
        if (!gpsd_open(loop.base.get(), {.listen = "127.0.0.1:0", .second = second})) {
            throw std::runtime_error("no port");
        }
    }
    // Opens fix, sky and port anew.
    void open_with_second(std::chrono::milliseconds second) {
        gpsd_close();
        positioning_close();
        upstream_close();
        loop.open(false);
        gnss_open(second);
        open_port(second);
    }

    // Turns until the peer has got the text.
    bool gets(TcpPeer& peer, const std::string& text) const {
        return loop.until([&] {
            peer.read();
            return peer.got.find(text) != std::string::npos;
        });
    }
    bool asked(TcpPeer& peer, const std::string& request, const std::string& answer) const {
        peer.got.clear();
        return peer.send(request) && gets(peer, answer);
    }
    // The latest report of the class that the peer has got.
    static Json report(const TcpPeer& peer, const std::string& name) {
        std::istringstream lines(peer.got);
        Json found;
        for (std::string line; std::getline(lines, line);) {
            const Json one = Json::parse(line, nullptr, false);
            found = one.is_object() && one.value("class", "") == name ? one : found;
        }
        return found;
    }
    void push(const std::string& sentence) const {
        const uint64_t before = hub_counters().items;
        ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, sentence + "\r\n")));
        ASSERT_TRUE(loop.until([&] { return hub_counters().items > before; }));
        event_base_loop(loop.base.get(), EVLOOP_NONBLOCK);
    }
    void push_epoch(int second) const {
        const std::string time = std::to_string(120000 + second) + ".00";
        push("$GNRMC," + time + ",A,4807.038,N,01131.000,E,10.0,84.4,230326,,,A,V*00");
        push("$GNGGA," + time + ",4807.038,N,01131.000,E,2,08,0.9,545.4,M,46.9,M,,*00");
        push("$GNGSA,A,3,04,05,,,,,,,,,,,2.5,1.3,2.1,1*00");
        push("$GPGSV,1,1,01,04,40,083,46,1*00");
        push("$GNGST," + time + ",1.0,2.0,3.0,45.0,4.0,5.0,6.0*00");
    }
    // The peer watches, and has been told a fix.
    void get_fix(TcpPeer& peer) const {
        ASSERT_TRUE(asked(peer, kWatchJson, "\"WATCH\""));
        ASSERT_TRUE(watching(1));
        push_epoch(0);
        push_epoch(1);
        ASSERT_TRUE(gets(peer, "\"mode\":3"));
    }
    // Mode of the fix that a poll tells, -1 when it tells none.
    int mode_by_poll(TcpPeer& peer) const {
        if (!asked(peer, "?POLL;", "\"POLL\"") || !gets(peer, "]}\r\n")) {
            return -1;
        }
        return report(peer, "POLL").at("tpv").at(0).at("mode");
    }
    static int option_of(int fd, int level, int name) {
        int value = -1;
        socklen_t size = sizeof value;
        getsockopt(fd, level, name, &value, &size);
        return value;
    }
    bool watching(size_t count) const {
        return loop.until([&] { return hub_counters().tcp_consumers == count && positioning_is_on(); });
    }

    RelayLoop loop;
};

TEST_F(RelayGpsd, AmongTooManyTheOldestMakesWayThatDoesNotWatchOrElseTheNewest) {
    gpsd_close();
    ASSERT_TRUE(gpsd_open(loop.base.get(), {.listen = "127.0.0.1:0", .clients_max = 3}));
    TcpPeer watcher(gpsd_port());
    ASSERT_TRUE(asked(watcher, kWatchJson, "\"WATCH\""));
    TcpPeer idle(gpsd_port());
    ASSERT_TRUE(gets(idle, "VERSION"));
    TcpPeer second(gpsd_port());
    ASSERT_TRUE(asked(second, kWatchJson, "\"WATCH\""));
    TcpPeer third(gpsd_port());
    ASSERT_TRUE(loop.until([&] { return !idle.read(); }));
    ASSERT_TRUE(asked(third, kWatchJson, "\"WATCH\""));
    TcpPeer fourth(gpsd_port()); // all watch: the newest makes way
    ASSERT_TRUE(loop.until([&] { return !third.read(); }));
    ASSERT_TRUE(asked(fourth, "?DEVICES;", "DEVICES"));
    EXPECT_EQ(gpsd_clients_count(), 3U);
    EXPECT_EQ(hub_counters().tcp_consumers, 2U);
    EXPECT_TRUE(asked(watcher, "?DEVICES;", "DEVICES"));
    EXPECT_TRUE(asked(second, "?DEVICES;", "DEVICES"));
}

// Any program of the host may come from any of its addresses.
TEST_F(RelayGpsd, SilentClientsOfManyAddressesTakeNoWatchersPlace) {
    gpsd_close();
    ASSERT_TRUE(gpsd_open(loop.base.get(), {.listen = "127.0.0.1:0", .clients_max = 3}));
    TcpPeer watcher(gpsd_port());
    ASSERT_TRUE(asked(watcher, kWatchJson, "\"WATCH\""));
    std::vector<std::unique_ptr<TcpPeer>> silent;
    for (const char* address : {"127.0.0.2", "127.0.0.3", "127.0.0.4"}) {
        silent.push_back(std::make_unique<TcpPeer>(gpsd_port(), 0, address));
        ASSERT_TRUE(gets(*silent.back(), "VERSION"));
    }
    EXPECT_TRUE(asked(watcher, "?DEVICES;", "DEVICES"));
    EXPECT_FALSE(silent.front()->read());
}

TEST_F(RelayGpsd, AnAddressOfIpv6StandsInBrackets) {
    for (const char* place : {"::1:0", "::1", "::", "[::1]:80:0", "127.0.0.1:80:0", "[::1"}) {
        gpsd_close();
        errno = 0;
        EXPECT_FALSE(gpsd_open(loop.base.get(), {.listen = place})) << place;
        EXPECT_EQ(errno, EINVAL) << place;
    }
    EXPECT_TRUE(gpsd_open(loop.base.get(), {.listen = "[::]:0"}) || errno == EAFNOSUPPORT);
}

TEST_F(RelayGpsd, GreetsWithItsVersion) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(gets(peer, "\r\n"));
    EXPECT_EQ(report(peer, "VERSION").at("proto_major"), 3);
}

TEST_F(RelayGpsd, AnswersEachRequestWithItsClass) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(loop.until(upstream_connected));
    ASSERT_TRUE(asked(peer, "?VERSION;", "\"VERSION\""));
    ASSERT_TRUE(asked(peer, "?DEVICES;", "\"DEVICES\""));
    ASSERT_TRUE(gets(peer, "\r\n"));
    EXPECT_EQ(report(peer, "DEVICES").at("devices").at(0).at("flags"), 1);
    EXPECT_EQ(report(peer, "DEVICES").at("devices").at(0).at("activated").get<std::string>().size(), 24U);
    ASSERT_TRUE(asked(peer, "?DEVICE={\"path\":\"/dev/null\",\"bps\":4800};", "\"DEVICE\""));
    ASSERT_TRUE(asked(peer, "?WATCH;", "\"enable\":false"));
    ASSERT_TRUE(asked(peer, "?POLL;\n", "\"POLL\""));
    ASSERT_TRUE(asked(peer, "?NONSENSE;", "Unrecognized request '?NONSENSE'"));
    ASSERT_TRUE(asked(peer, "?;", "Unrecognized request '?'"));
    ASSERT_TRUE(asked(peer, "?WATCH={\"enable\":false,\"device\":\"none\"};", "\"enable\":false"));
    ASSERT_TRUE(asked(peer, "?WATCH={\"device\":\"none\"};", "No such device as none"));
    ASSERT_TRUE(asked(peer, "?WATCH=nonsense;", "Invalid WATCH"));
    EXPECT_TRUE(loop.daemon->requests.empty());
}

TEST_F(RelayGpsd, WhatIsNoRequestIsNotAnswered) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, "GET / HTTP/1.0\r\n\r\n$PZUL001*00\n\xff\xfe\n?DEVICES;", "\"DEVICES\""));
    EXPECT_EQ(peer.got.find("ERROR"), std::string::npos);
    EXPECT_EQ(hub_counters().malformed, 3U);
}

TEST_F(RelayGpsd, TheDeviceIsActiveWhileThereIsADaemon) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(loop.until(upstream_connected));
    ASSERT_TRUE(asked(peer, "?DEVICE;", "\"activated\""));
    unlink(loop.daemon_path.c_str());
    loop.daemon = nullptr;
    ASSERT_TRUE(loop.until([] { return !upstream_connected(); }));
    ASSERT_TRUE(asked(peer, "?DEVICE;", "\"DEVICE\""));
    ASSERT_TRUE(gets(peer, "\r\n"));
    EXPECT_EQ(peer.got.find("activated"), std::string::npos);
}

TEST_F(RelayGpsd, AWatcherOfJsonIsToldThatTheDeviceHasGoneAndComeBack) {
    TcpPeer peer(gpsd_port());
    TcpPeer other(gpsd_port());
    ASSERT_TRUE(loop.until(upstream_connected));
    ASSERT_TRUE(asked(peer, kWatchJson, "\"WATCH\""));
    ASSERT_TRUE(asked(other, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(gets(other, "}\r\n"));
    peer.got.clear();
    other.got.clear();
    unlink(loop.daemon_path.c_str());
    loop.daemon = nullptr;
    ASSERT_TRUE(gets(peer, "\"native\":0}\r\n"));
    EXPECT_FALSE(report(peer, "DEVICE").contains("activated"));
    peer.got.clear();
    loop.start_daemon();
    ASSERT_TRUE(gets(peer, "\"native\":0}\r\n"));
    EXPECT_TRUE(report(peer, "DEVICE").contains("activated"));
    other.read();
    EXPECT_EQ(other.got, "");
}

TEST_F(RelayGpsd, AWatcherOfJsonGetsTheReportsOfEachEpoch) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, kWatchJson, "\"WATCH\""));
    EXPECT_LT(peer.got.find("\"DEVICES\""), peer.got.find("\"WATCH\""));
    ASSERT_TRUE(watching(1));
    push_epoch(0);
    push_epoch(1);
    ASSERT_TRUE(gets(peer, "12:00:01.000Z"));
    ASSERT_TRUE(gets(peer, "satellites"));
    const Json tpv = report(peer, "TPV");
    EXPECT_EQ(tpv.at("mode"), 3);
    EXPECT_EQ(tpv.at("status"), 2);
    EXPECT_EQ(tpv.at("time"), "2026-03-23T12:00:01.000Z");
    EXPECT_EQ(tpv.at("lat"), 48.1173);
    EXPECT_EQ(tpv.at("lon"), 11.516666667);
    EXPECT_EQ(tpv.at("altMSL"), 545.4);
    EXPECT_EQ(tpv.at("altHAE"), 592.3);
    EXPECT_EQ(tpv.at("speed"), 5.1444);
    EXPECT_EQ(report(peer, "GST").at("major"), 2.0);
    const Json sky = report(peer, "SKY");
    EXPECT_EQ(sky.at("nSat"), 1);
    EXPECT_EQ(sky.at("uSat"), 1);
    EXPECT_EQ(sky.at("hdop"), 1.3);
    EXPECT_EQ(sky.at("satellites").at(0).at("PRN"), 4);
    EXPECT_EQ(peer.got.find('$'), std::string::npos);
    ASSERT_TRUE(asked(peer, "?POLL;", "\"POLL\""));
    ASSERT_TRUE(gets(peer, "]}\r\n"));
    EXPECT_EQ(report(peer, "POLL").at("tpv").at(0).at("lat"), 48.1173);
}

TEST(RelayGpsdReport, TheStatusTellsTheQualityUnlessItIsOrdinary) {
    GnssEpoch epoch;
    epoch.mode = GnssMode::k3d;
    std::string told;
    for (int quality = 0; quality <= 9; ++quality) {
        epoch.quality = quality;
        const Json tpv = Json::parse(gpsd_report_tpv(epoch));
        told += (tpv.contains("status") ? tpv.at("status").dump() : "-") + " ";
    }
    EXPECT_EQ(told, "- - 2 9 3 4 5 7 8 - ");
}

TEST_F(RelayGpsd, AWatcherOfNmeaGetsSentencesOnly) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(watching(1));
    peer.got.clear();
    push("$GNGGA,1*00");
    push("$GNRMC,2*00");
    ASSERT_TRUE(gets(peer, "$GNRMC"));
    EXPECT_EQ(peer.got, "$GNGGA,1*00\r\n$GNRMC,2*00\r\n");
}

// As gpsd does.
TEST_F(RelayGpsd, ASentenceComesBeforeTheReportThatItCompletes) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, "?WATCH={\"enable\":true,\"json\":true,\"nmea\":true};", "\"WATCH\""));
    ASSERT_TRUE(watching(1));
    push_epoch(0);
    push_epoch(1);
    ASSERT_TRUE(gets(peer, "\"class\":\"SKY\""));
    const size_t last = peer.got.find("$GNGST,120001.00");
    const size_t report = peer.got.find("12:00:01.000Z");
    ASSERT_NE(last, std::string::npos);
    EXPECT_GT(report, last);
}

TEST_F(RelayGpsd, WhoStopsWatchingOrLeavesIsNoConsumer) {
    TcpPeer first(gpsd_port());
    TcpPeer second(gpsd_port());
    TcpPeer third(gpsd_port());
    ASSERT_TRUE(asked(first, kWatchJson, "\"WATCH\""));
    ASSERT_TRUE(asked(second, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(asked(third, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(watching(3));
    ASSERT_TRUE(asked(first, "?WATCH={\"enable\":false};", "\"enable\":false"));
    ASSERT_TRUE(watching(2));
    second.end();
    ASSERT_TRUE(watching(1));
    third.end(true);
    ASSERT_TRUE(loop.until([] { return hub_counters().tcp_consumers == 0; }));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_STOP) == 1; }));
    EXPECT_EQ(gpsd_clients_count(), 1U);
}

TEST_F(RelayGpsd, ASlowReaderLosesWholeOldReportsAndHoldsUpNobody) {
    TcpPeer slow(gpsd_port(), 2048);
    TcpPeer quick(gpsd_port());
    ASSERT_TRUE(asked(slow, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(asked(quick, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(watching(2));
    slow.got.clear();
    quick.got.clear();
    int pushed = 0;
    const std::string filler(400, 'x');
    while (hub_counters().dropped_tcp < 50 && pushed < 10000) {
        push("$GN" + std::to_string(pushed++) + "," + filler);
        quick.read();
    }
    ASSERT_LT(pushed, 10000);
    const std::string last = "$GN" + std::to_string(pushed - 1) + ",";
    ASSERT_TRUE(gets(quick, last));
    ASSERT_TRUE(gets(slow, last));
    ASSERT_TRUE(gets(slow, last + filler + "\r\n"));
    std::istringstream lines(slow.got);
    uint64_t whole = 0;
    for (std::string line; std::getline(lines, line); ++whole) {
        EXPECT_EQ(line.substr(line.find(',')), "," + filler + "\r");
    }
    EXPECT_EQ(whole + hub_counters().dropped_tcp, static_cast<uint64_t>(pushed));
    EXPECT_EQ(hub_counters().let_go, 0U);
}

TEST_F(RelayGpsd, SatellitesAreToldAsTheyAreNow) {
    GnssEpoch epoch;
    EXPECT_NE(gpsd_report_sky(epoch).find("\"satellites\":[]}\r\n"), std::string::npos);
    epoch.satellites.resize(1);
    epoch.satellites[0].strength = 40;
    EXPECT_NE(gpsd_report_sky(epoch).find("\"ss\":40.0"), std::string::npos);
    epoch.satellites[0].strength = 41;
    EXPECT_NE(gpsd_report_sky(epoch).find("\"ss\":41.0"), std::string::npos);
    epoch.hdop = 1.5;
    EXPECT_NE(gpsd_report_sky(epoch).find("\"hdop\":1.5,\"nSat\":1,\"uSat\":0,\"satellites\":[{"),
              std::string::npos);
}

TEST_F(RelayGpsd, WhatComesTogetherGoesToAClientInOnePiece) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(watching(1));
    const unsigned before = peer.pieces();
    for (const char* sentence : {"$GNRMC", "$GNGGA", "$GNGSA", "$GNGST"}) {
        ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, std::string(sentence) + "\r\n")));
    }
    ASSERT_TRUE(gets(peer, "$GNRMC\r\n$GNGGA\r\n$GNGSA\r\n$GNGST\r\n"));
    EXPECT_EQ(peer.pieces() - before, 1U);
}

// Every one of them would cost a wake-up and a send.
TEST_F(RelayGpsd, WhatComesWithinHalfAMillisecondIsReadTogether) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(watching(1));
    const unsigned before = peer.pieces();
    in_sleep = [this](const timespec& wait) {
        EXPECT_EQ(wait.tv_sec, 0);
        EXPECT_EQ(wait.tv_nsec, 500000);
        EXPECT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, "$GNGGA\r\n")));
    };
    ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, "$GNRMC\r\n")));
    ASSERT_TRUE(gets(peer, "$GNRMC\r\n$GNGGA\r\n"));
    EXPECT_EQ(peer.pieces() - before, 1U);
}

TEST_F(RelayGpsd, SkyIsToldWithEachViewAndOtherwiseOnceASecond) {
    const auto push_dops = [&](int second) {
        push("$GNRMC," + std::to_string(120000 + second) +
             ".00,A,4807.038,N,01131.000,E,1.0,8.4,230326,,,A,V*00");
        push("$GNGSA,A,3,04,05,,,,,,,,,,,2.5,1.3,2.1,1*00");
    };
    const auto skies = [](const TcpPeer& peer) {
        size_t count = 0;
        for (size_t at = 0; (at = peer.got.find("\"SKY\"", at)) != std::string::npos; ++at) {
            ++count;
        }
        return count;
    };
    open_with_second(std::chrono::hours(1));
    loop.start_daemon();
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, kWatchJson, "\"WATCH\""));
    for (int second = 0; second < 4; ++second) {
        push_dops(second);
    }
    ASSERT_TRUE(gets(peer, "12:00:03.000Z"));
    EXPECT_EQ(skies(peer), 1U);
    push_epoch(4); // is told with its DOPs, before its view comes
    push_epoch(5);
    push_epoch(6);
    ASSERT_TRUE(gets(peer, "12:00:06.000Z"));
    EXPECT_EQ(skies(peer), 3U);
}

TEST_F(RelayGpsd, TheRestOfAHalfSentReportIsKept) {
    TcpPeer slow(gpsd_port(), 2048);
    ASSERT_TRUE(gets(slow, "\r\n"));
    slow.got.clear();
    const auto line_of = [](char letter) { return std::string(63000, letter) + "\r\n"; };
    gpsd_clients_each([&](GpsdClient& client) {
        for (const char letter : {'a', 'b', 'c'}) {
            gpsd_clients_send(client, {std::make_shared<const std::string>(line_of(letter)), false});
            EXPECT_GT(client.sent, 0U); // the kernel has no room for all of the first
        }
    });
    EXPECT_EQ(hub_counters().dropped_tcp, 1U);
    ASSERT_TRUE(gets(slow, "c\r\n"));
    EXPECT_TRUE(slow.got == line_of('a') + line_of('c'));
}

TEST_F(RelayGpsd, WhoReadsNothingForThirtySecondsIsLetGo) {
    TcpPeer slow(gpsd_port(), 2048);
    ASSERT_TRUE(asked(slow, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(watching(1));
    const std::string filler(400, 'x');
    for (int i = 0; hub_counters().dropped_tcp == 0 && i < 10000; ++i) {
        push("$GNGGA," + filler);
    }
    ASSERT_TRUE(loop.until([] { return hub_counters().let_go == 1; }));
    EXPECT_EQ(gpsd_clients_count(), 0U);
    EXPECT_EQ(hub_counters().tcp_consumers, 0U);
}

TEST_F(RelayGpsd, WhoAsksAndDoesNotReadIsNotAskedForMore) {
    TcpPeer asker(gpsd_port(), 2048);
    std::string requests;
    for (int i = 0; i < 400; ++i) {
        requests += "?POLL;";
    }
    ASSERT_TRUE(asker.send(requests));
    loop.turn_for(10 * kShortSecond);
    size_t waiting = 0;
    gpsd_clients_each([&](const GpsdClient& client) { waiting = client.waiting_size; });
    EXPECT_LT(waiting, 4096U);
    size_t polls = 0;
    ASSERT_TRUE(loop.until([&] {
        asker.read();
        polls = 0;
        for (size_t at = 0; (at = asker.got.find("\"POLL\"", at)) != std::string::npos; ++at) {
            ++polls;
        }
        return polls == 400;
    }));
}

TEST_F(RelayGpsd, RequestsThatComeTogetherAreAnsweredOneATurn) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(gets(peer, "VERSION"));
    peer.got.clear();
    std::string requests;
    for (int i = 0; i < 200; ++i) {
        requests += "?DEVICES;";
    }
    ASSERT_TRUE(peer.send(requests));
    for (int turns = 0; turns < 10; ++turns) {
        event_base_loop(loop.base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
    peer.read();
    const auto answers = [&] { return std::count(peer.got.begin(), peer.got.end(), '\n'); };
    EXPECT_LE(answers(), 10);
    EXPECT_TRUE(loop.until([&] {
        peer.read();
        return answers() == 200;
    }));
}

TEST_F(RelayGpsd, AnEndlessLineIsRefusedAndTheNextRequestAnswered) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, "?" + std::string(9000, 'A'), "Request too long"));
    ASSERT_TRUE(asked(peer, "\n?VERSION;", "\"VERSION\""));
}

TEST_F(RelayGpsd, TheRestOfAnEndlessLineIsNoRequest) {
    TcpPeer peer(gpsd_port());
    ASSERT_TRUE(asked(peer, "?" + std::string(9000, 'A'), "Request too long"));
    ASSERT_TRUE(asked(peer, std::string(9000, 'A') + ";?VERSION;\n?DEVICES;", "\"DEVICES\""));
    EXPECT_EQ(peer.got.find("\"VERSION\""), std::string::npos);
    EXPECT_EQ(peer.got.find("ERROR"), std::string::npos);
    EXPECT_EQ(hub_counters().malformed, 1U);
}

TEST_F(RelayGpsd, TheKernelKeepsLittleForAClientAndNoticesOneThatIsGone) {
    const TcpPeer peer(gpsd_port());
    ASSERT_TRUE(loop.until([] { return gpsd_clients_count() == 1; }));
    int fd = -1;
    gpsd_clients_each([&](const GpsdClient& client) { fd = client.fd; });
    EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_SNDBUF), 2 * 16 * 1024); // the kernel tells twice what was asked
    EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_RCVBUF), 2 * 16 * 1024);
    EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_KEEPINTVL), 30);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), 60000);
}

TEST_F(RelayGpsd, WhoNeitherWatchesNorAsksForFifteenMinutesIsLetGo) {
    open_with_second(std::chrono::milliseconds(2));
    TcpPeer idle(gpsd_port());
    TcpPeer watcher(gpsd_port());
    ASSERT_TRUE(asked(watcher, kWatchNmea, "\"WATCH\""));
    ASSERT_TRUE(loop.until([&] { return !idle.read(); }));
    loop.turn_for(std::chrono::milliseconds(20));
    EXPECT_EQ(gpsd_clients_count(), 1U);
    EXPECT_EQ(hub_counters().tcp_consumers, 1U);
    EXPECT_EQ(hub_counters().let_go, 1U);
}

TEST_F(RelayGpsd, NoFixIsToldOnceTheDaemonIsGone) {
    TcpPeer peer(gpsd_port());
    get_fix(peer);
    unlink(loop.daemon_path.c_str());
    loop.daemon = nullptr;
    ASSERT_TRUE(loop.until([] { return !upstream_connected(); }));
    EXPECT_EQ(mode_by_poll(peer), 0);
}

TEST_F(RelayGpsd, NoFixIsToldOncePositioningHasEnded) {
    TcpPeer peer(gpsd_port());
    get_fix(peer);
    ASSERT_TRUE(asked(peer, "?WATCH={\"enable\":false};", "\"enable\":false"));
    ASSERT_TRUE(loop.until([] { return !positioning_is_on(); }));
    EXPECT_EQ(mode_by_poll(peer), 0);
}

TEST_F(RelayGpsd, AFixIsToldForTenSecondsOnly) {
    open_with_second(std::chrono::milliseconds(2));
    TcpPeer peer(gpsd_port());
    get_fix(peer);
    loop.turn_for(std::chrono::milliseconds(21));
    EXPECT_TRUE(positioning_is_on());
    EXPECT_EQ(mode_by_poll(peer), 0);
}

TEST_F(RelayGpsd, TwoHundredThatComeAndGoLeaveNothing) {
    for (int round = 0; round < 2; ++round) {
        std::vector<std::unique_ptr<TcpPeer>> peers;
        for (int i = 0; i < 100; ++i) {
            peers.push_back(std::make_unique<TcpPeer>(gpsd_port()));
            peers.back()->send(i % 2 == 0 ? kWatchJson : "?WATCH={\"ena");
            event_base_loop(loop.base.get(), EVLOOP_NONBLOCK);
        }
        for (size_t i = 0; i < peers.size(); ++i) {
            peers[i]->end(i % 3 == 0);
        }
    }
    ASSERT_TRUE(loop.until([] { return gpsd_clients_count() == 0; }));
    EXPECT_EQ(hub_counters().tcp_consumers, 0U);
}

} // namespace
