#include "server/option_rows.h"
#include "server/options.h"
#include "server/run.h"
#include "support/private_dir.h"
#include "system/listen.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

struct RelayOptions : testing::Test {
    // Status of a command line, -1 when the relay is to run.
    int parse(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "tavor-relay");
        std::vector<char*> words;
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const auto status = options_parse(static_cast<int>(arguments.size()), words.data(), options,
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
    ASSERT_EQ(parse({config, "--socket", "/run/b"}), -1);
    EXPECT_FALSE(options.always);
    EXPECT_EQ(options.stop_delay_s, 60);
    EXPECT_EQ(options.socket, "/run/b");
    EXPECT_EQ(options.chrony, "/run/c");
}

TEST_F(RelayOptions, AValueOfTheFileIsTheWholeRestOfItsLine) {
    const std::string file = directory.write(
        "relay.conf",
        "listen=[::1]:2947\nchrony = /run/a b,c\nmetrics=[::1]:9947\nsocket=\"/run/q\"\ndaemon='/run/d'\n");
    ASSERT_EQ(parse({"--config", file}), -1) << err;
    EXPECT_EQ(options.listen, "[::1]:2947");
    EXPECT_EQ(options.chrony, "/run/a b,c");
    EXPECT_EQ(options.metrics, "[::1]:9947");
    EXPECT_EQ(options.socket, "/run/q");
    EXPECT_EQ(options.daemon, "/run/d");
    options.chrony = "/run/c";
    const std::string empty = directory.write("empty.conf", "listen=\nchrony=\n");
    ASSERT_EQ(parse({"--config", empty}), -1) << err;
    EXPECT_EQ(options.listen, "");
    EXPECT_EQ(options.chrony, "");
}

TEST_F(RelayOptions, AHashBeginsACommentAlsoBehindAValue) {
    const std::string file = directory.write(
        "relay.conf", "; a comment\n# another\nstop-delay=60 # a minute\nchrony=/run/a#b\nlisten=#all\n");
    ASSERT_EQ(parse({"--config", file}), -1) << err;
    EXPECT_EQ(options.stop_delay_s, 60);
    EXPECT_EQ(options.chrony, "/run/a");
    EXPECT_EQ(options.listen, "");
}

TEST_F(RelayOptions, TheDefaultsThatHelpTellsAreThoseOfARelayWithoutOptions) {
    for (const OptionRow& row : option_rows()) {
        Options taken;
        EXPECT_EQ(row.usual == nullptr ? "" : row.take(taken, row.usual), "") << row.name;
        EXPECT_EQ(taken, Options()) << row.name;
    }
}

TEST_F(RelayOptions, TheManualHasAnEntryForEachOption) {
    std::ifstream file(TAVOR_MANUAL_FOR_TEST);
    const std::string manual(std::istreambuf_iterator<char>(file), {});
    for (const OptionRow& row : option_rows()) {
        const std::string name = std::regex_replace(std::string("--") + row.name, std::regex("-"), "\\-");
        EXPECT_TRUE(manual.find("\n.TP\n.BI " + name + " ") != std::string::npos ||
                    manual.find("\n.TP\n.BR " + name + " ") != std::string::npos)
            << name;
    }
}

TEST_F(RelayOptions, OfAnUnknownNameTheNearestIsNamed) {
    const std::vector<std::pair<std::string, std::string>> wrong = {
        {"stop-dealy", "stop-delay"},
        {"positionning", "positioning"},
        {"Listen", "listen"},
        {"mqtt-passwordfile", "mqtt-password-file"}};
    for (const auto& [name, nearest] : wrong) {
        const std::string file = directory.write("relay.conf", "# first\n" + name + "=1\n");
        EXPECT_EQ(parse({"--config", file}), 2);
        EXPECT_EQ(err, "tavor-relay: " + file + ", line 2: there is no setting '" + name +
                           "', the nearest is '" + nearest + "'; see 'tavor-relay --help'\n");
        EXPECT_EQ(parse({"--" + name + "=1"}), 2);
        EXPECT_EQ(err, "tavor-relay: there is no option '--" + name + "', the nearest is '--" + nearest +
                           "'; see 'tavor-relay --help'\n");
    }
    EXPECT_EQ(parse({"--config", directory.write("relay.conf", "sock=/run/a\n")}), 2)
        << "in short only on the command line";
}

TEST_F(RelayOptions, AUsualFileThatCannotBeReadIsNotPassedOver) {
    const std::filesystem::path usual = directory.path / "none.conf";
    std::filesystem::create_directory(usual); // root may read any file
    EXPECT_EQ(parse({}), 2);
    EXPECT_EQ(err,
              "tavor-relay: can't read " + usual.string() + ": Is a directory; see 'tavor-relay --help'\n");
    EXPECT_EQ(parse({"--config", directory.write("other.conf", "stop-delay=3\n")}), -1);
}

TEST_F(RelayOptions, AFileThatHoldsNoSettingsIsRefusedWithoutAWait) {
    const std::string pipe = directory.path / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::vector<std::pair<std::string, std::string>> wrong = {
        {pipe, "can't read " + pipe + ": Operation not supported"},
        {"/dev/zero", "/dev/zero is no file with settings"},
        {directory.write("long", std::string(65537, '\n')),
         (directory.path / "long").string() + " is no file with settings"},
        {directory.write("word", "listen"),
         (directory.path / "word").string() + ", line 1: 'listen' is no option=value"},
        {directory.write("value", "mqtt-queue=1\r\n\nmqtt-queue=1e2\n"),
         (directory.path / "value").string() +
             ", line 3: mqtt-queue: '1e2' is no whole number from 1 to 100000"}};
    for (const auto& [file, problem] : wrong) {
        EXPECT_EQ(parse({"--config", file}), 2);
        EXPECT_EQ(err, "tavor-relay: " + problem + "; see 'tavor-relay --help'\n");
    }
    EXPECT_EQ(parse({"--config", "/dev/null"}), -1);
    EXPECT_EQ(parse({"--config", directory.write("long", std::string(65536, '\n'))}), -1);
}

TEST_F(RelayOptions, VersionAndHelp) {
    EXPECT_EQ(parse({"--version"}), 0);
    EXPECT_EQ(out, "tavor-relay " TAVOR_VERSION_FOR_TEST "\n");
    for (const char* option : {"--help", "-h"}) {
        EXPECT_EQ(parse({"--socket", "/run/a", option}), 0);
        EXPECT_NE(out.find("\n  --stop-delay SECONDS=10     On demand:"), std::string::npos) << out;
        EXPECT_NE(out.find("\n  --socket PATH=/run/tavor/relay.sock\n" + std::string(30, ' ') + "The socket"),
                  std::string::npos);
        EXPECT_NE(out.find("Exit status:"), std::string::npos);
    }
}

TEST_F(RelayOptions, AnOptionMayBeShortenedAndTheLaterOneCounts) {
    ASSERT_EQ(parse({"--sock=/run/a", "--stop", "3", "--socket", "/run/b", "--chrony=--x"}), -1);
    EXPECT_EQ(options.chrony, "--x");
    EXPECT_EQ(options.socket, "/run/b");
    EXPECT_EQ(options.stop_delay_s, 3);
}

TEST_F(RelayOptions, WhatIsWrongWithAnOptionIsNamed) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong = {
        {{"--chrony"}, "--chrony takes a value"},
        {{"--chrony", "--positioning=demand"}, "--chrony takes a value"},
        {{"--config", "--help"}, "--config takes a value"},
        {{"--positioning=a\nb"}, "--positioning: 'a b' is neither always nor demand"},
        {{"--help=3"}, "--help takes no value"},
        {{"--mqtt-c", "x"}, "'--mqtt-c' may be '--mqtt-ca' or '--mqtt-cert': write more of it"},
        {{"--vers=3"}, "--version takes no value"},
        {{"-x"}, "there is no option '-x'"},
        {{"extra", "--version"}, "'extra' is no option"},
        {{"--stop-delay", "nan"}, "--stop-delay: 'nan' is no number from 0 to 86400"},
        {{"--positioning", ""}, "--positioning: '' is neither always nor demand"}};
    for (const auto& [line, problem] : wrong) {
        EXPECT_EQ(parse(line), 2);
        EXPECT_EQ(err, "tavor-relay: " + problem + "; see 'tavor-relay --help'\n");
    }
}

TEST_F(RelayOptions, WhatIsWrongIsToldInOneLine) {
    const std::string unknown = "--config=" + directory.write("unknown.conf", "speed=9\n");
    const std::string long_path(100, 'x');
    const std::string longer_path(108, 'x');
    const std::vector<std::vector<std::string>> wrong = {{"--speed", "9"},
                                                         {"--positioning", "sometimes"},
                                                         {"--stop-delay", "-1"},
                                                         {"--stop-delay", "soon"},
                                                         {"--stop-delay", "nan"},
                                                         {"--socket", long_path},
                                                         {"--daemon", ""},
                                                         {"extra"},
                                                         {"--chrony", longer_path},
                                                         {unknown},
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
    ASSERT_EQ(parse({"--mqtt", "b", "--mqtt-user", "u", "--mqtt-password-file", file}), -1);
    EXPECT_EQ(options.mqtt.password, "se cret");
    for (const std::string& wrong : {empty, folder, folder + "/none"}) {
        EXPECT_EQ(parse({"--mqtt", "b", "--mqtt-user", "u", "--mqtt-password-file", wrong}), 2) << wrong;
    }
}

TEST_F(RelayOptions, WhatIsWrongWithTheBrokerIsToldInOneLine) {
    const std::vector<std::vector<std::string>> wrong = {
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
