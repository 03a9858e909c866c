// The relay's metrics, read by a Prometheus, and the examples of its configuration.
#include "support/harness.h"
#include "support/tcp_peer.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace {

const std::string kExamples = TAVOR_EXAMPLES_DIR;

bool is_installed(const std::string& program) {
    return run_program({"/bin/sh", "-c", "command -v " + program}).status == 0;
}

// The body of what an HTTP server of loopback answers, empty while none does.
std::string http_get(int port, const std::string& target) try {
    TcpPeer peer(port);
    if (!peer.send("GET " + target + " HTTP/1.0\r\nHost: localhost\r\n\r\n") ||
        !wait_until([&] { return !peer.read(); })) {
        return "";
    }
    const size_t head = peer.got.find("\r\n\r\n");
    return head == std::string::npos ? "" : peer.got.substr(head + 4);
} catch (const std::runtime_error&) { // nobody listens yet
    return "";
}

// The last of the texts in the other one becomes another; the test fails when it isn't there.
void replace_last(std::string& text, const std::string& from, const std::string& to) {
    const size_t at = text.rfind(from);
    ASSERT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
}

// The example with another place and a shorter interval.
std::string example_config(int port) {
    std::ifstream file(kExamples + "/prometheus.yml");
    std::string text((std::istreambuf_iterator<char>(file)), {});
    replace_last(text, "127.0.0.1:9947", "127.0.0.1:" + std::to_string(port));
    replace_last(text, "15s", "1s");
    return text;
}

struct RelayPrometheus : testing::Test {
    void SetUp() override {
        if (!is_installed("promtool") || !is_installed("prometheus")) {
            GTEST_SKIP() << "prometheus is missing";
        }
    }
    std::filesystem::path path(const std::string& name) const {
        return board.directory.path / name;
    }
    void start_relay() {
        relay = std::make_unique<Child>(Arguments{TAVOR_RELAY_PROGRAM, "--daemon", board.socket_path(),
                                                  "--socket", path("relay.sock"), "--listen", "", "--metrics",
                                                  "127.0.0.1:" + std::to_string(port)},
                                        path("relay.log"));
        ASSERT_TRUE(
            wait_until([&] { return metrics().find("tavor_relay_fix_mode 3\n") != std::string::npos; }));
    }
    void start_prometheus() {
        board.directory.write("prometheus.yml", example_config(port));
        std::filesystem::copy_file(kExamples + "/prometheus-alerts.yml", path("prometheus-alerts.yml"));
        prometheus = std::make_unique<Child>(
            Arguments{"prometheus", "--config.file", path("prometheus.yml"), "--storage.tsdb.path",
                      path("data"), "--web.listen-address", "127.0.0.1:" + std::to_string(prometheus_port)},
            path("prometheus.log"));
    }
    std::string metrics() const {
        return http_get(port, "/metrics");
    }
    // The values of an expression's series, empty until it has some.
    std::vector<std::string> query(const std::string& expression) const {
        const auto answer = nlohmann::json::parse(
            http_get(prometheus_port, "/api/v1/query?query=" + expression), nullptr, false);
        std::vector<std::string> values;
        if (answer.is_object() && answer.value("status", "") == "success") {
            for (const auto& series : answer["data"]["result"]) {
                values.push_back(series["value"][1]);
            }
        }
        return values;
    }
    bool tells(const std::string& expression, const std::string& value) const {
        return wait_until([&] { return query(expression) == std::vector<std::string>{value}; });
    }

    SimulatedBoard board{{"--rate", "5"}};
    DaemonOnBoard daemon{board};
    int port = free_tcp_port();
    int prometheus_port = free_tcp_port();
    std::unique_ptr<Child> relay;
    std::unique_ptr<Child> prometheus;
};

TEST_F(RelayPrometheus, PromtoolFindsNothingWrongWithTheMetrics) {
    start_relay();
    const RunResult result = run_program(
        {"/bin/sh", "-c", "promtool check metrics < \"$0\"", board.directory.write("metrics", metrics())});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(RelayPrometheus, ScrapesEverySeriesAsTheExampleSays) {
    start_relay();
    start_prometheus();
    EXPECT_TRUE(tells("up{job=\"tavor\"}", "1")) << board.directory.read("prometheus.log");
    EXPECT_EQ(query("tavor_relay_fix_mode"), std::vector<std::string>{"3"});
    EXPECT_EQ(query("tavor_relay_satellites{state=\"used\"}"), std::vector<std::string>{"20"});
    std::istringstream lines(metrics());
    size_t series = 0;
    for (std::string line; std::getline(lines, line);) {
        series += line.starts_with("#") ? 0 : 1;
    }
    EXPECT_EQ(query("scrape_samples_scraped"), std::vector<std::string>{std::to_string(series)});
    daemon.kill();
    EXPECT_TRUE(tells("tavor_relay_daemon_up", "0"));
    relay->end(SIGTERM);
    EXPECT_TRUE(tells("up", "0"));
}

TEST_F(RelayPrometheus, TheExamplesAlarmsFireWhenTheyShould) {
    const RunResult config = run_program({"promtool", "check", "config", kExamples + "/prometheus.yml"});
    EXPECT_EQ(config.status, 0) << config.out << config.err;
    const RunResult rules = run_program({"promtool", "test", "rules", TAVOR_ALERTS_TEST});
    EXPECT_EQ(rules.status, 0) << rules.out << rules.err;
}

} // namespace
