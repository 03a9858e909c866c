#include "server/options.h"
#include "server/run.h"
#include "support/private_dir.h"
#include "system/listen.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

struct RelayOptions : testing::Test {
    // Status of a command line, -1 when the relay is to run.
    int parse(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "tavor-relay");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const auto status = options_parse(static_cast<int>(arguments.size()), arguments.data(), options,
                                          (directory.path / "none.conf").c_str());
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return status.value_or(-1);
    }

    PrivateDir directory;
    Options options;
    std::string out;
    std::string err;
};

TEST_F(RelayOptions, HasDefaultsThatSuitADevice) {
    ASSERT_EQ(parse({}), -1);
    EXPECT_EQ(options.daemon, TAVOR_SOCKET_PATH);
    EXPECT_EQ(options.socket, "/run/tavor/relay.sock");
    EXPECT_TRUE(options.always);
    EXPECT_EQ(options.stop_delay_s, 10);
    EXPECT_EQ(options.listen, "127.0.0.1:2947");
    EXPECT_EQ(options.metrics, "");
    EXPECT_EQ(options.chrony, "");
}

TEST_F(RelayOptions, TheCommandLineWinsOverTheFile) {
    const std::string file = directory.write(
        "relay.conf", "# a comment\npositioning=demand\nstop-delay=60\nsocket=/run/a\nchrony=/run/c\n");
    const std::string config = "--config=" + file;
    ASSERT_EQ(parse({config.c_str(), "--socket", "/run/b"}), -1);
    EXPECT_FALSE(options.always);
    EXPECT_EQ(options.stop_delay_s, 60);
    EXPECT_EQ(options.socket, "/run/b");
    EXPECT_EQ(options.chrony, "/run/c");
}

TEST_F(RelayOptions, AValueOfTheFileIsTheWholeRestOfItsLine) {
    const std::string file = directory.write(
        "relay.conf", "listen=[::1]:2947\nchrony = /run/a b,c\nmetrics=[::1]:9947\nsocket=\"/run/q\"\n");
    ASSERT_EQ(parse({"--config", file.c_str()}), -1) << err;
    EXPECT_EQ(options.listen, "[::1]:2947");
    EXPECT_EQ(options.chrony, "/run/a b,c");
    EXPECT_EQ(options.metrics, "[::1]:9947");
    EXPECT_EQ(options.socket, "/run/q");
    options.chrony = "/run/c";
    const std::string empty = directory.write("empty.conf", "listen=\nchrony=\n");
    ASSERT_EQ(parse({"--config", empty.c_str()}), -1) << err;
    EXPECT_EQ(options.listen, "");
    EXPECT_EQ(options.chrony, "");
}

TEST_F(RelayOptions, AHashBeginsACommentAlsoBehindAValue) {
    const std::string file = directory.write(
        "relay.conf", "; a comment\n# another\nstop-delay=60 # a minute\nchrony=/run/a#b\nlisten=#all\n");
    ASSERT_EQ(parse({"--config", file.c_str()}), -1) << err;
    EXPECT_EQ(options.stop_delay_s, 60);
    EXPECT_EQ(options.chrony, "/run/a");
    EXPECT_EQ(options.listen, "");
}

TEST_F(RelayOptions, OfAnUnknownSettingTheNearestIsNamed) {
    const std::vector<std::pair<std::string, std::string>> wrong = {{"stop-dealy", "stop-delay"},
                                                                    {"positionning", "positioning"},
                                                                    {"Listen", "listen"},
                                                                    {"sock", "socket"}};
    for (const auto& [name, nearest] : wrong) {
        EXPECT_EQ(parse({"--config", directory.write("relay.conf", name + "=1\n").c_str()}), 2);
        EXPECT_EQ(err, "tavor-relay: there is no setting '" + name + "' for the file, the nearest is '" +
                           nearest + "'; see 'tavor-relay --help'\n");
    }
}

TEST_F(RelayOptions, AUsualFileThatCannotBeReadIsNotPassedOver) {
    const std::filesystem::path usual = directory.path / "none.conf";
    std::filesystem::create_directory(usual); // root may read any file
    EXPECT_EQ(parse({}), 2);
    EXPECT_EQ(err, "tavor-relay: can't read " + usual.string() + "; see 'tavor-relay --help'\n");
    EXPECT_EQ(parse({"--config", directory.write("other.conf", "stop-delay=3\n").c_str()}), -1);
}

TEST_F(RelayOptions, VersionAndHelp) {
    EXPECT_EQ(parse({"--version"}), 0);
    EXPECT_EQ(out, "tavor-relay " TAVOR_VERSION_FOR_TEST "\n");
    EXPECT_EQ(parse({"--help"}), 0);
    EXPECT_NE(out.find("Exit status:"), std::string::npos);
}

TEST_F(RelayOptions, WhatIsWrongIsToldInOneLine) {
    const std::string unknown = "--config=" + directory.write("unknown.conf", "speed=9\n");
    const std::string long_path(100, 'x');
    const std::string longer_path(108, 'x');
    const std::vector<std::vector<const char*>> wrong = {{"--speed", "9"},
                                                         {"--positioning", "sometimes"},
                                                         {"--stop-delay", "-1"},
                                                         {"--stop-delay", "soon"},
                                                         {"--stop-delay", "nan"},
                                                         {"--socket", long_path.c_str()},
                                                         {"--daemon", ""},
                                                         {"extra"},
                                                         {"--chrony", longer_path.c_str()},
                                                         {unknown.c_str()},
                                                         {"--config", "/nonexistent/relay.conf"}};
    for (const auto& line : wrong) {
        EXPECT_EQ(parse(line), 2) << line.front();
        EXPECT_EQ(err.substr(0, 13), "tavor-relay: ") << line.front();
        EXPECT_EQ(err.find('\n'), err.size() - 1) << line.front();
    }
}

TEST_F(RelayOptions, TheBrokerHasDefaultsToo) {
    ASSERT_EQ(parse({}), -1);
    EXPECT_EQ(options.mqtt.host, "");
    ASSERT_EQ(parse({"--mqtt", "broker.example", "--mqtt-id", "seven"}), -1);
    EXPECT_EQ(options.mqtt.host, "broker.example");
    EXPECT_EQ(options.mqtt.port, 1883);
    EXPECT_EQ(options.mqtt.topic, "tavor");
    EXPECT_EQ(options.mqtt.every_s, 10);
    EXPECT_EQ(options.mqtt.distance_m, 0);
    EXPECT_EQ(options.mqtt.queue, 1000U);
    EXPECT_EQ(options.mqtt.keepalive_s, 60);
    ASSERT_EQ(parse({"--mqtt", "broker.example", "--mqtt-ca", "/etc/ssl/certs"}), -1);
    EXPECT_EQ(options.mqtt.port, 8883);
}

TEST_F(RelayOptions, ThePasswordIsTheFirstLineOfAFile) {
    const std::string file = directory.write("password", "se cret\nrest\n");
    const std::string empty = directory.write("empty", "\n");
    const std::string folder = directory.path.string();
    ASSERT_EQ(parse({"--mqtt", "b", "--mqtt-user", "u", "--mqtt-password-file", file.c_str()}), -1);
    EXPECT_EQ(options.mqtt.password, "se cret");
    for (const std::string& wrong : {empty, folder, folder + "/none"}) {
        EXPECT_EQ(parse({"--mqtt", "b", "--mqtt-user", "u", "--mqtt-password-file", wrong.c_str()}), 2)
            << wrong;
    }
}

TEST_F(RelayOptions, WhatIsWrongWithTheBrokerIsToldInOneLine) {
    const std::vector<std::vector<const char*>> wrong = {
        {"--mqtt", "host:0"},        {"--mqtt-id", "a/b"},       {"--mqtt-topic", "a/#"},
        {"--mqtt-every", "nan"},     {"--mqtt-every", "0"},      {"--mqtt-distance", "-1"},
        {"--mqtt-queue", "0"},       {"--mqtt-queue", "100001"}, {"--mqtt-keepalive", "4"},
        {"--mqtt-cert", "/x"},       {"--mqtt-key", "/x"},       {"--mqtt-password-file", "/x"},
        {"--mqtt-keepalive", "1e9"},
    };
    for (auto line : wrong) {
        line.insert(line.begin(), {"--mqtt", "broker"});
        if (line[2] == std::string("--mqtt")) {
            line.erase(line.begin(), line.begin() + 2);
        }
        options = {};
        EXPECT_EQ(parse(line), 2) << line.back();
        EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
    }
}

TEST_F(RelayOptions, APlaceThatIsNoneIsAnErrorOfUse) {
    options.daemon = (directory.path / "daemon").string();
    options.socket = (directory.path / "relay").string();
    for (const char* place : {"nowhere", "127.0.0.1:", "127.0.0.1:99999"}) {
        options.listen = place;
        options.metrics = "";
        EXPECT_EQ(run(options), 2) << place;
        options.metrics = std::exchange(options.listen, "");
        EXPECT_EQ(run(options), 2) << place;
    }
}

TEST_F(RelayOptions, WhatWasMadeAtAPathIsRemovedWhenTheRestCannotBeHad) {
    options.daemon = (directory.path / "daemon").string();
    options.socket = (directory.path / "relay").string();
    options.listen = "";
    options.metrics = (directory.path / "place").string();
    std::filesystem::create_directory(options.socket + ".metrics"); // nothing can be bound there
    EXPECT_EQ(run(options), 1);
    EXPECT_FALSE(std::filesystem::exists(options.socket));
    EXPECT_FALSE(std::filesystem::exists(options.metrics));
    EXPECT_TRUE(std::filesystem::is_directory(options.socket + ".metrics"));
}

TEST_F(RelayOptions, ASocketThatAnotherRelayServesIsLeftAlone) {
    const int served = listen_path((directory.path / "relay").string(), SOCK_DGRAM);
    ASSERT_GE(served, 0);
    options.daemon = (directory.path / "daemon").string();
    options.socket = (directory.path / "relay").string();
    options.listen = "";
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(options), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "tavor-relay: can't serve local clients at " + options.socket + ": Address already in use\n");
    EXPECT_TRUE(std::filesystem::is_socket(options.socket));
    EXPECT_FALSE(std::filesystem::exists(options.socket + ".metrics"));
    close(served);
}

} // namespace
