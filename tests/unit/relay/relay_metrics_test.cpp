// The metrics: what is served over HTTP, to whom, and how the exposition reads.
#include "metrics/metrics.h"
#include "metrics/metrics_report.h"
#include "metrics/metrics_request.h"

#include "gnss/gnss.h"
#include "hub/hub.h"
#include "support/relay_loop.h"
#include "support/tcp_peer.h"
#include "system/listen.h"
#include "unit/relay/suspend.h"

#include <cmath>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <regex>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const std::string kGga = "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7D\r\n";
const std::string kRmc = "$GNRMC,151620.00,A,4317.71149,N,00521.92193,E,15.551,45.61,211126,,,A,V*02\r\n";

// Samples by name with labels. Fails the test where a line is not of the format.
std::map<std::string, double> parse(const std::string& exposition) {
    static const std::regex head(R"(# (HELP|TYPE) ([a-z_]+) (\S.*))");
    static const std::regex sample(
        R"(([a-z_]+)(\{[a-z_]+="(?:[^"\\\n]|\\["\\n])*"\})? (NaN|-?[0-9.]+(?:e[+-][0-9]+)?))");
    std::map<std::string, double> samples;
    std::map<std::string, std::string> types;
    std::set<std::string> closed; // metrics that others have followed
    std::string last;
    EXPECT_TRUE(exposition.ends_with("\n"));
    std::istringstream lines(exposition);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        const bool is_head = std::regex_match(line, match, head);
        if (!is_head && !std::regex_match(line, match, sample)) {
            ADD_FAILURE() << "no line of the format: " << line;
            continue;
        }
        const std::string name = is_head ? match[2] : match[1];
        if (name != last) {
            EXPECT_TRUE(closed.insert(last).second && closed.count(name) == 0) << name << " is in two places";
            last = name;
        }
        if (is_head && match[1] == "TYPE") {
            EXPECT_TRUE(types.emplace(name, match[3]).second) << name << " has two types";
            EXPECT_TRUE(match[3] == "counter" || match[3] == "gauge") << line;
            EXPECT_EQ(match[3] == "counter", name.ends_with("_total")) << line;
        } else if (!is_head) {
            EXPECT_EQ(types.count(name), 1U) << name << " has no type";
            const double value = match[3] == "NaN" ? NAN : std::stod(match[3]);
            EXPECT_TRUE(samples.emplace(name + match[2].str(), value).second) << line << " is there twice";
        }
    }
    return samples;
}

// A client of the Unix socket.
struct Scraper {
    explicit Scraper(const std::string& path) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~Scraper() {
        close(fd);
    }
    Scraper(const Scraper&) = delete;
    Scraper& operator=(const Scraper&) = delete;

    bool send(const std::string& text) const {
        return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // Reads what has come. Whether the other side has ended.
    bool read() {
        char bytes[4096] = {};
        ssize_t size = 0;
        while ((size = recv(fd, bytes, sizeof bytes, 0)) > 0) {
            got.append(bytes, static_cast<size_t>(size));
        }
        return size == 0 || errno == ECONNRESET;
    }

    int fd;
    std::string got;
};

size_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

struct RelayMetrics : testing::Test {
    void SetUp() override {
        loop.open(true);
        gnss_open();
        loop.open_local();
        metrics_open(loop.base.get(), {.daemon = loop.daemon_path, .second = second});
        metrics_serve(listen_path(path, SOCK_STREAM));
        loop.start_daemon();
        ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_START) == 1; }));
        ASSERT_TRUE(loop.until(positioning_is_on));
    }
    void TearDown() override {
        slept_s = 0;
        metrics_close();
        gnss_close();
    }

    std::string answer(const std::string& request) const {
        Scraper scraper(path);
        EXPECT_TRUE(scraper.send(request));
        EXPECT_TRUE(loop.until([&] { return scraper.read(); }));
        return scraper.got;
    }
    std::map<std::string, double> samples() const {
        const std::string whole = answer("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
        const size_t body = whole.find("\r\n\r\n");
        EXPECT_NE(body, std::string::npos);
        return body == std::string::npos ? std::map<std::string, double>() : parse(whole.substr(body + 4));
    }
    void push(uint32_t code, const std::string& text) const {
        const uint64_t before = hub_counters().items;
        ASSERT_TRUE(loop.daemon->send(relay_response(code, 0, text)));
        ASSERT_TRUE(loop.until([&] { return hub_counters().items > before; }));
    }

    // Two epochs: the last sentence of an epoch is learnt from the first one.
    void push_epochs() const {
        for (int epoch = 0; epoch < 2; ++epoch) {
            push(TAVOR_CODE_NMEA, kRmc);
            push(TAVOR_CODE_NMEA, kGga);
        }
        ASSERT_TRUE(loop.until([&] { return gnss_latest().quality == 1; }));
    }

    std::chrono::milliseconds second{60000}; // no limit passes, however slow the machine
    RelayLoop loop;
    std::string path = (loop.directory.path / "metrics").string();
};

// Limits of 5 seconds that are over in 100 ms.
struct RelayMetricsImpatient : RelayMetrics {
    RelayMetricsImpatient() {
        second = kShortSecond;
    }
};

TEST_F(RelayMetrics, TellWhatIsThereBeforeAnythingHasCome) {
    const auto all = samples();
    EXPECT_EQ(all.at("tavor_relay_daemon_up"), 1);
    EXPECT_EQ(all.at("tavor_relay_positioning"), 1);
    EXPECT_EQ(all.at("tavor_relay_sentences_total"), 0);
    EXPECT_EQ(all.at("tavor_relay_build_info{version=\"" TAVOR_VERSION_FOR_TEST "\"}"), 1);
    EXPECT_EQ(all.at("tavor_relay_daemon_info{socket=\"" + loop.daemon_path + "\"}"), 1);
    EXPECT_NEAR(all.at("process_start_time_seconds"), static_cast<double>(time(nullptr)), 60);
    for (const char* never :
         {"tavor_relay_fix_age_seconds", "tavor_relay_sentence_age_seconds", "tavor_relay_fix_quality",
          "tavor_relay_satellites{state=\"visible\"}", "tavor_relay_satellites{state=\"used\"}"}) {
        EXPECT_TRUE(std::isnan(all.at(never))) << never;
    }
}

TEST_F(RelayMetrics, CountWhatComes) {
    push(TAVOR_CODE_POSITION, "");
    push_epochs();
    const auto all = samples();
    EXPECT_EQ(all.at("tavor_relay_sentences_total"), 4);
    EXPECT_EQ(all.at("tavor_relay_positions_total"), 1);
    EXPECT_EQ(all.at("tavor_relay_fix_quality"), 1);
    EXPECT_GE(all.at("tavor_relay_fix_mode"), 2);
    for (const char* age : {"tavor_relay_fix_age_seconds", "tavor_relay_sentence_age_seconds"}) {
        EXPECT_GE(all.at(age), 0) << age;
        EXPECT_LT(all.at(age), 60) << age;
    }
}

TEST_F(RelayMetrics, AgesGoOnWhileTheSystemSleeps) {
    push_epochs();
    slept_s = 3600;
    const auto all = samples();
    EXPECT_GE(all.at("tavor_relay_fix_age_seconds"), 3600);
    EXPECT_GE(all.at("tavor_relay_sentence_age_seconds"), 3600);
    EXPECT_EQ(all.at("tavor_relay_fix_mode"), 0) << "a fix from before is none of the present";
    push_epochs();
    EXPECT_LT(samples().at("tavor_relay_fix_age_seconds"), 60);
}

TEST_F(RelayMetrics, AnEpochThatASilenceHasCutIsNoFixOfThePresent) {
    push(TAVOR_CODE_NMEA, kRmc);
    push(TAVOR_CODE_NMEA, kGga);
    slept_s = 11;
    for (const char* time : {"151631", "151632"}) {
        push(TAVOR_CODE_NMEA, "$GNRMC," + std::string(time) + ".00,V,,,,,,,211126,,,N,V*00\r\n");
    }
    ASSERT_TRUE(loop.until([] { return gnss_latest().mode == GnssMode::kNoFix; }));
    const auto all = samples();
    EXPECT_TRUE(std::isnan(all.at("tavor_relay_fix_age_seconds")));
    EXPECT_EQ(all.at("tavor_relay_satellites{state=\"visible\"}"), 0) << "an epoch that tells of none";
}

TEST_F(RelayMetrics, EachCounterHasItsRow) {
    HubCounters& counters = hub_counters();
    const std::map<std::string, uint64_t*> rows = {
        {"dropped_total{reason=\"backlog\"}", &counters.dropped_in},
        {"dropped_total{reason=\"local_client\"}", &counters.dropped_local},
        {"dropped_total{reason=\"gpsd_client\"}", &counters.dropped_tcp},
        {"dropped_total{reason=\"mqtt_broker\"}", &counters.dropped_mqtt},
        {"mqtt_published_total", &counters.published_mqtt},
        {"clients_let_go_total", &counters.let_go},
        {"requests_refused_total", &counters.refused},
        {"requests_ignored_total", &counters.ignored},
        {"malformed_total", &counters.malformed},
        {"consumers{kind=\"gpsd\"}", &counters.tcp_consumers}};
    uint64_t value = 100;
    for (const auto& [name, counter] : rows) {
        *counter = ++value;
    }
    const auto all = parse(metrics_report());
    for (const auto& [name, counter] : rows) {
        EXPECT_EQ(all.at("tavor_relay_" + name), static_cast<double>(*counter)) << name;
    }
}

TEST_F(RelayMetrics, CountRequestsAndConsumers) {
    PlayedClient client(loop.local_path, abstract_address("relay-metrics-" + std::to_string(getpid())));
    ASSERT_TRUE(client.send(TAVOR_REQUEST_START));
    ASSERT_TRUE(loop.until([&] { return client.read(), client.count(TAVOR_CODE_START) == 1; }));
    loop.daemon->value = TAVOR_VALUE_FAILED;
    ASSERT_TRUE(client.send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return client.read(), client.count(TAVOR_CODE_SAVE_LOCATION) == 1; }));
    const auto all = samples();
    EXPECT_EQ(all.at("tavor_relay_requests_total"), 2);
    EXPECT_EQ(all.at("tavor_relay_requests_failed_total"), 1);
    EXPECT_EQ(all.at("tavor_relay_consumers{kind=\"local\"}"), 1);
    EXPECT_EQ(all.at("tavor_relay_consumers{kind=\"gpsd\"}"), 0);
}

TEST_F(RelayMetrics, CountDaemonsThatWereRestarted) {
    loop.daemon = nullptr;
    ASSERT_TRUE(loop.until([&] { return samples().at("tavor_relay_daemon_up") == 0; }));
    EXPECT_EQ(samples().at("tavor_relay_positioning"), 0);
    loop.start_daemon();
    ASSERT_TRUE(loop.until([&] { return samples().at("tavor_relay_daemon_up") == 1; }));
    EXPECT_EQ(samples().at("tavor_relay_daemon_restarts_total"), 1);
}

TEST_F(RelayMetrics, APathOfAnyBytesIsALabel) {
    metrics_report_open("a\\b\"c\nd");
    const auto all = parse(metrics_report());
    EXPECT_EQ(all.count(R"(tavor_relay_daemon_info{socket="a\\b\"c\nd"})"), 1U);
    metrics_report_open("\xc3\xa9\xff"); // Prometheus refuses a whole page for one byte that is no UTF-8
    EXPECT_EQ(parse(metrics_report()).count("tavor_relay_daemon_info{socket=\"\xc3\xa9\xef\xbf\xbd\"}"), 1U);
}

TEST_F(RelayMetrics, AnswerOneGetWithItsLengthAndEnd) {
    const std::string whole = answer("GET /metrics?x=1 HTTP/1.0\n\n");
    EXPECT_EQ(whole.find("HTTP/1.1 200 OK\r\n"), 0U);
    EXPECT_NE(whole.find("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"),
              std::string::npos);
    const size_t length = whole.find("Content-Length: ");
    const size_t body = whole.find("\r\n\r\n");
    ASSERT_LT(length, body);
    EXPECT_EQ(std::stoul(whole.substr(length + 16)), whole.size() - body - 4);
}

TEST_F(RelayMetrics, RefuseWhatIsNoGetOfTheirs) {
    const std::map<std::string, std::string> refusals = {{"GET / HTTP/1.1\r\n\r\n", "404"},
                                                         {"GET /metricsx HTTP/1.1\r\n\r\n", "404"},
                                                         {"POST /metrics HTTP/1.1\r\n\r\n", "405"},
                                                         {"HEAD /metrics HTTP/1.1\r\n\r\n", "405"},
                                                         {"GET /metrics\r\n\r\n", "400"},
                                                         {"GET  HTTP/1.1\r\n\r\n", "400"},
                                                         {" /metrics HTTP/1.1\r\n\r\n", "400"},
                                                         {"GET /metrics HTTP/2.0\r\n\r\n", "400"},
                                                         {std::string(kMetricsHeadMax, 'x'), "400"},
                                                         {std::string(64, '\0') + "\n\n", "400"}};
    for (const auto& [request, status] : refusals) {
        EXPECT_EQ(answer(request).substr(0, 12), "HTTP/1.1 " + status) << request.substr(0, 30);
    }
}

TEST(RelayMetricsRequest, IsTakenInPiecesUpToItsBound) {
    const std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
    for (size_t size = 0; size < request.size(); ++size) {
        EXPECT_EQ(metrics_request_read(request.substr(0, size)), MetricsAsked::kMore) << size;
    }
    EXPECT_EQ(metrics_request_read(request), MetricsAsked::kMetrics);
    EXPECT_EQ(metrics_request_read(request + "more"), MetricsAsked::kMetrics);
    const std::string line = "GET /metrics HTTP/1.1\nX: ";
    const std::string longest = line + std::string(kMetricsHeadMax - line.size() - 2, 'x');
    EXPECT_EQ(metrics_request_read(longest + "\n\n"), MetricsAsked::kMetrics);
    EXPECT_EQ(metrics_request_read(longest + "x\n\n"), MetricsAsked::kMalformed);
}

TEST_F(RelayMetrics, AreServedBesideThoseThatSayNothing) {
    std::vector<std::unique_ptr<Scraper>> silent;
    for (int i = 0; i < 100; ++i) {
        silent.push_back(std::make_unique<Scraper>(path));
        loop.until([] { return true; });
    }
    ASSERT_TRUE(loop.until([] { return metrics_connections() == 16; }));
    EXPECT_EQ(answer("GET /metrics HTTP/1.1\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
    EXPECT_TRUE(silent.front()->read()) << "the oldest was let go";
    EXPECT_FALSE(silent.back()->read());
}

TEST_F(RelayMetrics, WhoAsksIsServedBeforeACrowdBehindTakesItsPlace) {
    Scraper asker(path);
    ASSERT_TRUE(asker.send("GET /metrics HTTP/1.1\r\n\r\n"));
    std::vector<std::unique_ptr<Scraper>> crowd(100);
    for (auto& one : crowd) {
        one = std::make_unique<Scraper>(path);
    }
    EXPECT_TRUE(loop.until([&] { return asker.read(); }));
    EXPECT_EQ(asker.got.substr(0, 12), "HTTP/1.1 200");
}

TEST_F(RelayMetrics, NoSocketOfAnotherTypeTakesTheirPlace) {
    EXPECT_EQ(listen_path(path, SOCK_DGRAM), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(answer("GET /metrics HTTP/1.1\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
}

TEST_F(RelayMetrics, LoopsOfConnectionsLeaveNothingBehind) {
    loop.turn_for(std::chrono::milliseconds(50));
    const size_t before = open_descriptors();
    for (int i = 0; i < 200; ++i) {
        const Scraper scraper(path);
        scraper.send(i % 3 == 0   ? "GET /metrics HTTP/1.1\r\n\r\n"
                     : i % 3 == 1 ? "GET /met"
                                  : "\r\n\r\ngarbage");
        loop.until([] { return true; });
    }
    EXPECT_TRUE(loop.until([] { return metrics_connections() == 0; }));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(RelayMetrics, AClientThatHasEndedItsSideIsAnswered) {
    Scraper scraper(path);
    ASSERT_TRUE(scraper.send("GET /metrics HTTP/1.1\r\n\r\n"));
    shutdown(scraper.fd, SHUT_WR);
    EXPECT_TRUE(loop.until([&] { return scraper.read(); }));
    EXPECT_TRUE(scraper.got.ends_with("} 1\n"));
    EXPECT_TRUE(loop.until([] { return metrics_connections() == 0; }));
}

TEST_F(RelayMetricsImpatient, LetGoWhoIsSlow) {
    Scraper half(path);
    ASSERT_TRUE(half.send("GET /metrics HTTP/1.1\r\n"));
    EXPECT_TRUE(loop.until([&] {
        half.send("X: x\r\n"); // goes on slowly
        return half.read();
    }));
    EXPECT_EQ(half.got, "");
    const Scraper deaf(path); // never ends the connection
    ASSERT_TRUE(deaf.send("GET /metrics HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(loop.until([] { return metrics_connections() == 1; }));
    EXPECT_TRUE(loop.until([] { return metrics_connections() == 0; }));
}

} // namespace
