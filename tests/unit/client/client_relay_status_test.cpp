// What a relay tells: its metrics as text, and relays that tell nothing.
#include "client/relay_status.h"

#include "client/daemon_probe.h"
#include "client/place.h"
#include "support/bound_socket.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

const std::string kBegin = "# HELP tavor_relay_build_info The relay's version.\n"
                           "# TYPE tavor_relay_build_info gauge\n"
                           "tavor_relay_build_info{version=\"1.2.3\"} 1\n";
const std::string kEnd = "tavor_relay_daemon_info{socket=\"/a b/\\\\\\\"c\"} 1\n";

// A relay's socket that answers each connection with this text and closes it.
struct FakeRelay {
    explicit FakeRelay(std::string text) : answer(std::move(text)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        (socket + ".metrics").copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd, 0), 0);
    }
    ~FakeRelay() {
        shutdown(fd, SHUT_RDWR);
        if (server.joinable()) {
            server.join();
        }
        close(fd);
    }
    FakeRelay(const FakeRelay&) = delete;
    FakeRelay& operator=(const FakeRelay&) = delete;

    void serve() {
        server = std::thread([this] {
            for (int one = -1; (one = accept(fd, nullptr, nullptr)) >= 0; close(one)) {
                char request[256];
                recv(one, request, sizeof request, 0);
                send(one, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
        });
    }

    std::string answer;
    PrivateDir directory;
    std::string socket = (directory.path / "relay").string();
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    std::thread server;
};

std::string good() {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + kBegin + kEnd;
}

} // namespace

TEST(RelayStatus, ReadsWhatTheMetricsTell) {
    const auto status = relay_status_parse(kBegin +
                                           "tavor_relay_daemon_up 1\n"
                                           "tavor_relay_positioning 1\n"
                                           "tavor_relay_sentence_age_seconds 0.25\n"
                                           "tavor_relay_fix_age_seconds 1.5e-05\n"
                                           "tavor_relay_fix_quality 4\n"
                                           "tavor_relay_satellites{state=\"visible\"} 20\n"
                                           "tavor_relay_satellites{state=\"used\"} 12\n"
                                           "tavor_relay_consumers{kind=\"local\"} 3\n"
                                           "tavor_relay_consumers{kind=\"gpsd\"} 2\n"
                                           "tavor_relay_dropped_total{reason=\"backlog\"} 5\n"
                                           "tavor_relay_dropped_total{reason=\"of {a} new kind\"} 6\n"
                                           "tavor_relay_clients_let_go_total 7\n"
                                           "tavor_relay_daemon_restarts_total 8\n" +
                                           kEnd);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->version, "1.2.3");
    EXPECT_EQ(status->daemon, "/a b/\\\"c");
    EXPECT_TRUE(status->daemon_up && status->positioning);
    EXPECT_EQ(status->sentence_age_s, 0.25);
    EXPECT_EQ(status->fix_age_s, 1.5e-05);
    EXPECT_EQ(status->quality, 4);
    EXPECT_EQ(status->satellites_used, 12);
    EXPECT_EQ(status->local_consumers, 3U);
    EXPECT_EQ(status->gpsd_consumers, 2U);
    EXPECT_EQ(status->dropped, 11U);
    EXPECT_EQ(status->let_go, 7U);
    EXPECT_EQ(status->daemon_restarts, 8U);
}

TEST(RelayStatus, WhatIsNotKnownIsAbsent) {
    const auto status = relay_status_parse(kBegin +
                                           "tavor_relay_sentence_age_seconds NaN\n"
                                           "tavor_relay_fix_quality 1e99\n"
                                           "tavor_relay_clients_let_go_total -4\n" +
                                           kEnd);
    ASSERT_TRUE(status);
    EXPECT_FALSE(status->sentence_age_s || status->fix_age_s || status->quality);
    EXPECT_FALSE(status->daemon_up || status->positioning);
    EXPECT_EQ(status->let_go, 0U);
}

TEST(RelayStatus, MetricsThatEndEarlyAreNone) {
    const std::string whole = kBegin + kEnd;
    for (size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(relay_status_parse(whole.substr(0, size))) << size;
    }
    EXPECT_TRUE(relay_status_parse(whole));
}

TEST(RelayStatus, IsAskedAtTheSocketBesideTheRelays) {
    FakeRelay relay(good());
    relay.serve();
    const auto status = relay_status_ask(relay.socket);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->why, "");
    EXPECT_EQ(status->socket, relay.socket);
    EXPECT_EQ(place_daemon_socket(relay.socket), "/a b/\\\"c");
}

TEST(RelayStatus, WithoutARelayThereIsNone) {
    const PrivateDir directory;
    EXPECT_FALSE(relay_status_ask(directory.path / "daemon"));
    EXPECT_FALSE(relay_status_ask(directory.write("file", "") + "/daemon"));
    EXPECT_FALSE(relay_status_ask(std::string(107, 'x')));
    EXPECT_EQ(place_daemon_socket(directory.path / "daemon"), directory.path / "daemon");
}

TEST(RelayStatus, AnAnswerThatIsNoneIsTold) {
    for (const std::string& answer : {std::string(), std::string("HTTP/1.1 404 Not Found\r\n\r\n"),
                                      good().substr(0, good().size() - 1), std::string(300000, '\n')}) {
        FakeRelay relay(answer);
        relay.serve();
        const auto status = relay_status_ask(relay.socket);
        ASSERT_TRUE(status);
        EXPECT_NE(status->why, "") << answer.substr(0, 20);
    }
}

TEST(RelayStatus, ARelayThatHangsIsWaitedForUpToTheLimit) {
    const FakeRelay relay("");
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) { // at first its queue takes the connection, then it is full
        const auto status = relay_status_ask(relay.socket, std::chrono::milliseconds(50));
        ASSERT_TRUE(status);
        EXPECT_EQ(status->why.rfind("it does not answer", 0), 0U) << status->why;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
}

TEST(RelayStatus, ASilentRelayHidesWhichDaemonThereIs) {
    const FakeRelay relay("");
    const BoundSocket requests(relay.socket);
    const Place place = place_of(relay.socket);
    EXPECT_NE(place.hidden, "");
    const DaemonProbe probe = daemon_probe(place);
    EXPECT_FALSE(probe.running) << "the relay holds the socket, not the daemon";
    EXPECT_FALSE(probe.reachable);
    EXPECT_EQ(probe.running_why, place.hidden);
}
