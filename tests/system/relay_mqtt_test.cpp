// The relay and Debian's MQTT broker, with its clients as witnesses.
#include "support/harness.h"
#include "support/tcp_peer.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <unistd.h>

namespace {

using Json = nlohmann::json;

std::string path_of(const std::string& program) {
    const std::string path = run_program({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin command -v " + program}).out;
    return path.substr(0, path.find('\n'));
}

bool is_installed(const std::string& program) {
    return !path_of(program).empty();
}

std::vector<Json> lines_of(const std::string& text) {
    std::vector<Json> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(Json::parse(line, nullptr, false));
    }
    return lines;
}

constexpr int kHourMs = 3600 * 1000;

// Of an hour: "2026-11-21T15:16:20.000Z".
int milliseconds_of(const std::string& time) {
    return (std::stoi(time.substr(14, 2)) * 60 + std::stoi(time.substr(17, 2))) * 1000 +
           std::stoi(time.substr(20, 3));
}

struct RelayMqttSystem : testing::Test {
    void SetUp() override {
        for (const char* program : {"mosquitto", "mosquitto_sub", "openssl"}) {
            if (!is_installed(program)) {
                GTEST_SKIP() << program << " is missing";
            }
        }
    }

    std::string file(const std::string& name) const {
        return (board.directory.path / name).string();
    }
    void start_broker(const std::string& more = "allow_anonymous true\n") {
        broker = nullptr;
        std::filesystem::remove(file("broker.log"));
        std::ofstream(file("broker.conf"))
            << "listener " << port << " 127.0.0.1\npersistence false\nuser root\n"
            << more;
        broker = std::make_unique<Child>(Arguments{path_of("mosquitto"), "-c", file("broker.conf")},
                                         file("broker.log"));
        ASSERT_TRUE(wait_until([&] {
            return board.directory.read("broker.log").find("running") != std::string::npos;
        })) << board.directory.read("broker.log");
    }
    void start_relay(Arguments options, const std::string& host = "127.0.0.1") {
        options.insert(options.end(), {"--mqtt", host + ":" + std::to_string(port), "--mqtt-id", "seven"});
        start_any_relay(options);
    }
    void start_any_relay(const Arguments& options) {
        Arguments arguments = {
            TAVOR_RELAY_PROGRAM, "--daemon", board.socket_path(), "--socket", file("relay.sock"),
            "--listen",          ""};
        arguments.insert(arguments.end(), options.begin(), options.end());
        relay = nullptr;
        std::filesystem::remove(file("relay.log"));
        relay = std::make_unique<Child>(arguments, file("relay.log"));
    }
    std::string log() const {
        return board.directory.read("relay.log");
    }
    bool wait_log(const std::string& text) const {
        return wait_until([&] { return log().find(text) != std::string::npos; });
    }
    // The log about three attempts. Whether a socket ends as closed or as reset is chance.
    std::string told_at_three_attempts() const {
        EXPECT_TRUE(wait_until([&] {
            const std::string text = board.directory.read("broker.log");
            size_t attempts = 0;
            for (size_t at = 0; (at = text.find("onnection from 127.0.0.1", at)) != std::string::npos; ++at) {
                ++attempts;
            }
            return attempts >= 3;
        })) << board.directory.read("broker.log");
        const std::string text = log();
        return text.substr(std::min(text.find("MQTT"), text.size()));
    }
    // What the broker keeps on the topic, or sends next.
    Json message(const std::string& topic) const {
        const RunResult result =
            run_program({"mosquitto_sub", "-p", std::to_string(port), "-t", topic, "-C", "1", "-W", "20"});
        return Json::parse(result.out, nullptr, false);
    }
    void add_user(const std::string& name) const {
        std::ofstream(file("users"), std::ios::app).close();
        ASSERT_EQ(run_program({"mosquitto_passwd", "-b", file("users"), name, "secret"}).status, 0);
    }
    // Writes down all positions from now on; the broker's log tells when.
    void start_witness() {
        witness = nullptr;
        std::filesystem::remove(file("witness"));
        witness = std::make_unique<Child>(Arguments{path_of("mosquitto_sub"), "-p", std::to_string(port),
                                                    "-u", "witness", "-P", "secret", "-t",
                                                    "tavor/seven/position", "-q", "1", "-R"},
                                          file("witness"));
        ASSERT_TRUE(wait_until(
            [&] { return board.directory.read("broker.log").find("Sending SUBACK") != std::string::npos; }));
    }
    std::vector<Json> witnessed() const {
        return lines_of(board.directory.read("witness"));
    }
    // An authority, a broker's certificate with the name, and one for the device.
    void make_certificates(const std::string& names, const std::string& validity = "-days 2") {
        const std::string script =
            "cd " + board.directory.path.string() +
            " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=authority"
            " -keyout ca.key -out ca.pem"
            " && for who in broker device; do openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
            " -subj /CN=$who -keyout $who.key -out $who.csr"
            " && printf 'subjectAltName=" +
            names +
            "\\n' > $who.ext"
            " && openssl x509 -req -in $who.csr -CA ca.pem -CAkey ca.key -CAcreateserial " +
            validity + " -extfile $who.ext -out $who.pem || exit 1; done";
        const RunResult result = run_program({"/bin/sh", "-c", script});
        ASSERT_EQ(result.status, 0) << result.err;
    }
    std::string tls_lines(const std::string& more = "") const {
        return "allow_anonymous true\ncafile " + file("ca.pem") + "\ncertfile " + file("broker.pem") +
               "\nkeyfile " + file("broker.key") + "\n" + more;
    }

    SimulatedBoard board{{"--rate", "10"}};
    DaemonOnBoard daemon{board};
    int port = free_tcp_port();
    std::unique_ptr<Child> broker;
    std::unique_ptr<Child> witness;
    std::unique_ptr<Child> relay;
};

// What the libraries of this output cost is paid by a relay that publishes.
TEST_F(RelayMqttSystem, OnlyARelayThatPublishesHasItsLibraries) {
    const auto maps = [&] {
        std::ifstream file("/proc/" + std::to_string(relay->pid) + "/maps");
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    start_broker();
    start_any_relay({});
    ASSERT_TRUE(wait_log("the daemon is there"));
    EXPECT_NE(maps().find("/libevent_core"), std::string::npos);
    for (const char* library : {"/libmosquitto", "/libssl", "/libcrypto", "/libevent_extra"}) {
        EXPECT_EQ(maps().find(library), std::string::npos) << library;
    }
    relay->end(SIGTERM);
    start_relay({});
    ASSERT_TRUE(wait_log("connected"));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(relay->pid) + "/exe"),
              TAVOR_RELAY_MQTT_PROGRAM);
    EXPECT_NE(maps().find("/libmosquitto"), std::string::npos);
}

TEST_F(RelayMqttSystem, TheBrokerKeepsPositionAndStateAndTellsThatTheDeviceIsGone) {
    start_broker();
    start_relay({"--mqtt-every", "0.2"});
    const Json position = message("tavor/seven/position");
    EXPECT_NEAR(position.at("latitude").get<double>(), 43.3, 1);
    EXPECT_TRUE(position.at("time").is_string());
    ASSERT_TRUE(wait_until([&] { return message("tavor/seven/status").value("positioning", false); }));
    relay->end(SIGKILL);
    EXPECT_TRUE(wait_until([&] { return message("tavor/seven/status") == Json{{"state", "offline"}}; }));
    EXPECT_TRUE(message("tavor/seven/position").contains("latitude"));
    start_relay({});
    ASSERT_TRUE(wait_until([&] { return message("tavor/seven/status").at("state") == "online"; }));
    EXPECT_EQ(relay->end(SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return message("tavor/seven/status").at("state") == "offline"; }));
}

TEST_F(RelayMqttSystem, ABrokerThatIsKilledLosesNothing) {
    const std::string users = "allow_anonymous false\nlog_type all\npassword_file " + file("users") + "\n";
    add_user("witness");
    add_user("me");
    start_broker(users);
    start_witness();
    const std::string password = board.directory.write("password", "secret\n");
    start_relay({"--mqtt-every", "0.000001", "--mqtt-user", "me", "--mqtt-password-file", password});
    ASSERT_TRUE(wait_until([&] { return witnessed().size() >= 5; }));
    broker->end(SIGKILL);
    ASSERT_TRUE(wait_log("MQTT broker 127.0.0.1: "));
    ASSERT_TRUE(wait_log("MQTT broker 127.0.0.1: Connection refused\n"));
    const std::string before = board.directory.read("witness");
    // The relay is let in once the witness is there again.
    std::filesystem::remove(file("users"));
    add_user("witness");
    start_broker(users);
    ASSERT_TRUE(wait_log("MQTT broker 127.0.0.1: Connection Refused: not authorised.\n"));
    start_witness();
    add_user("me");
    kill(broker->pid, SIGHUP);
    ASSERT_TRUE(wait_until([&] { return witnessed().size() > 20; })) << log();
    // Each epoch of a tenth of a second, some of them twice.
    std::set<std::string> times;
    for (const Json& one : lines_of(before + board.directory.read("witness"))) {
        times.insert(one.value("time", "none"));
    }
    std::string last;
    for (const std::string& time : times) {
        const int gone =
            last.empty() ? 100 : (milliseconds_of(time) - milliseconds_of(last) + kHourMs) % kHourMs;
        EXPECT_EQ(gone, 100) << last << " " << time;
        last = time;
    }
}

TEST_F(RelayMqttSystem, TlsTakesTheBrokersNameAndOurAuthority) {
    make_certificates("DNS:localhost,IP:127.0.0.1");
    start_broker(tls_lines("require_certificate true\n"));
    start_relay(
        {"--mqtt-ca", file("ca.pem"), "--mqtt-cert", file("device.pem"), "--mqtt-key", file("device.key")},
        "localhost");
    EXPECT_TRUE(wait_log("MQTT broker localhost: connected")) << log() << board.directory.read("broker.log");
    relay->end(SIGTERM);
    start_relay(
        {"--mqtt-ca", file("ca.pem"), "--mqtt-cert", file("device.pem"), "--mqtt-key", file("device.key")});
    EXPECT_TRUE(wait_log("MQTT broker 127.0.0.1: connected")) << log();
}

TEST_F(RelayMqttSystem, ABrokerThatWantsACertificateIsToldAsSuch) {
    make_certificates("IP:127.0.0.1");
    start_broker(tls_lines("require_certificate true\n"));
    start_relay({"--mqtt-ca", file("ca.pem")});
    // With TLS 1.3 the reason may be overtaken by the end of the connection, but isn't withdrawn by it.
    const std::string closed =
        "MQTT broker 127.0.0.1: the connection was closed instead of an answer; does it "
        "take our certificate?\n";
    const std::string reason = "MQTT broker 127.0.0.1: TLS fails: tlsv13 alert certificate required\n";
    const std::string told = told_at_three_attempts();
    EXPECT_TRUE(told == reason || told == closed || told == closed + "tavor-relay: " + reason) << told;
}

TEST_F(RelayMqttSystem, WhereTlsIsNotSpokenTheLogSaysSo) {
    make_certificates("IP:127.0.0.1");
    start_broker();
    start_relay({"--mqtt-ca", file("ca.pem")});
    EXPECT_EQ(told_at_three_attempts(),
              "MQTT broker 127.0.0.1: the connection was closed before TLS was agreed; "
              "is it spoken at its port?\n");
}

TEST_F(RelayMqttSystem, WhereTlsIsSpokenTheLogSaysSo) {
    make_certificates("IP:127.0.0.1");
    start_broker(tls_lines());
    start_relay({});
    EXPECT_EQ(told_at_three_attempts(),
              "MQTT broker 127.0.0.1: the connection was closed instead of an answer; if "
              "TLS is spoken at its port, that takes --mqtt-ca\n");
}

TEST_F(RelayMqttSystem, ACertificateForAnotherHostIsRefused) {
    make_certificates("DNS:other.example");
    start_broker(tls_lines());
    start_relay({"--mqtt-ca", file("ca.pem")}, "localhost");
    EXPECT_TRUE(wait_log("MQTT broker localhost: its certificate is refused: hostname mismatch\n")) << log();
    relay->end(SIGTERM);
    start_relay({"--mqtt-ca", file("ca.pem")});
    EXPECT_TRUE(wait_log("MQTT broker 127.0.0.1: its certificate is refused: IP address mismatch\n"))
        << log();
}

TEST_F(RelayMqttSystem, AnExpiredCertificateIsRefusedAndToldOnce) {
    make_certificates("DNS:localhost", "-days 0");
    start_broker(tls_lines());
    start_relay({"--mqtt-ca", file("ca.pem")}, "localhost");
    ASSERT_TRUE(wait_until([&] {
        const std::string text = board.directory.read("broker.log");
        return text.find("xpired", text.find("xpired") + 1) != std::string::npos; // two attempts
    })) << log()
        << board.directory.read("broker.log");
    const std::string line = "its certificate is refused: certificate has expired\n";
    ASSERT_NE(log().find(line), std::string::npos) << log();
    EXPECT_EQ(log().find(line, log().find(line) + 1), std::string::npos) << log();
}

TEST_F(RelayMqttSystem, AnotherAuthorityIsRefused) {
    make_certificates("DNS:localhost");
    start_broker(tls_lines());
    ASSERT_EQ(run_program({"/bin/sh", "-c",
                           "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
                           " -subj /CN=x -keyout " +
                               file("x.key") + " -out " + file("x.pem")})
                  .status,
              0);
    start_relay({"--mqtt-ca", file("x.pem")}, "localhost");
    EXPECT_TRUE(wait_log("its certificate is refused: self-signed certificate in certificate chain\n"))
        << log();
}

TEST_F(RelayMqttSystem, AKeyWithAPassphraseIsRefusedWithoutAQuestion) {
    make_certificates("DNS:localhost");
    const RunResult locked = run_program({"openssl", "ec", "-in", file("device.key"), "-aes128", "-passout",
                                          "pass:secret", "-out", file("locked.key")});
    ASSERT_EQ(locked.status, 0) << locked.err;
    const RunResult result =
        run_program({TAVOR_RELAY_PROGRAM, "--daemon", board.socket_path(), "--socket", file("relay.sock"),
                     "--listen", "", "--mqtt", "localhost", "--mqtt-ca", file("ca.pem"), "--mqtt-cert",
                     file("device.pem"), "--mqtt-key", file("locked.key")});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.starts_with("tavor-relay: key " + file("locked.key") + ": ")) << result.err;
}

TEST_F(RelayMqttSystem, UserAndPasswordAreAskedFor) {
    board.directory.write("users", "");
    ASSERT_EQ(run_program({"mosquitto_passwd", "-b", file("users"), "me", "secret"}).status, 0);
    board.directory.write("good", "secret\n");
    board.directory.write("bad", "wrong\n");
    start_broker("allow_anonymous false\npassword_file " + file("users") + "\n");
    start_relay({"--mqtt-user", "me", "--mqtt-password-file", file("bad")});
    EXPECT_TRUE(wait_log("MQTT broker 127.0.0.1: Connection Refused: not authorised.\n")) << log();
    relay->end(SIGTERM);
    start_relay({"--mqtt-user", "me", "--mqtt-password-file", file("good")});
    EXPECT_TRUE(wait_log("MQTT broker 127.0.0.1: connected\n")) << log();
}

} // namespace
