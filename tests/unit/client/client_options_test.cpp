// The command line.
#include "client/options.h"

#include "client/command_table.h"
#include "client/exit_status.h"
#include "client/words.h"
#include "support/capture.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <vector>

namespace {

struct Parsed {
    std::optional<int> status;
    Options options;
    std::string out;
    std::string err;
};

Parsed parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "tavorctl");
    Parsed parsed;
    testing::internal::CaptureStderr();
    parsed.out = capture_stdout([&] {
        parsed.status = options_parse(static_cast<int>(arguments.size()), arguments.data(), parsed.options);
    });
    parsed.err = testing::internal::GetCapturedStderr();
    return parsed;
}

std::string manual() {
    std::ifstream file(TAVOR_MANUAL_FOR_TEST);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

TEST(Options, DefaultsAreTheDaemonsSocketAndTheCommandsOwnLimits) {
    const Parsed parsed = parse({"start"});
    EXPECT_FALSE(parsed.status);
    EXPECT_EQ(parsed.options.command, Command::kStart);
    EXPECT_EQ(parsed.options.socket, TAVOR_SOCKET_PATH);
    EXPECT_FALSE(parsed.options.timeout_s || parsed.options.wait_s || parsed.options.duration_s);
    EXPECT_FALSE(parsed.options.json || parsed.options.raw || parsed.options.stop);
}

TEST(Options, CommonOptionsStandBeforeOrBehindTheCommand) {
    for (const auto& arguments :
         {std::vector<const char*>{"--socket", "/x", "--timeout", "2.5", "--json", "stop"},
          std::vector<const char*>{"stop", "--json", "--socket=/x", "--timeout=2.5"}}) {
        const Parsed parsed = parse(arguments);
        EXPECT_FALSE(parsed.status) << parsed.err;
        EXPECT_EQ(parsed.options.command, Command::kStop);
        EXPECT_EQ(parsed.options.socket, "/x");
        EXPECT_EQ(parsed.options.timeout_s, 2.5);
        EXPECT_TRUE(parsed.options.json);
    }
}

TEST(Options, OfAnOptionThatIsGivenTwiceTheLastCounts) {
    EXPECT_EQ(parse({"stop", "--timeout", "1", "--timeout", "2"}).options.timeout_s, 2.0);
    EXPECT_EQ(parse({"start", "--wait=3", "--wait"}).options.wait_s, 10.0);
    EXPECT_EQ(parse({"--socket", "/a", "stop", "--socket", "/b"}).options.socket, "/b");
    EXPECT_EQ(parse({"watch", "--count", "1", "--count", "2", "--raw", "--raw"}).options.count, 2);
}

TEST(Options, NumbersHaveTheirLimitsInTheMessage) {
    EXPECT_EQ(parse({"stop", "--timeout", "31622400"}).options.timeout_s, 31622400.0);
    EXPECT_EQ(
        parse({"stop", "--timeout", "31622401"}).err,
        "tavorctl: --timeout: 31622401 is no number of seconds up to 31622400; see 'tavorctl stop --help'\n");
    EXPECT_EQ(parse({"export", "--csv", "--distance", "0"}).err,
              "tavorctl: --distance: 0 is no positive number of metres up to 31622400; see 'tavorctl export "
              "--help'\n");
}

TEST(Options, EnvironmentReplacesTheDefaultSocketOnly) {
    setenv("TAVOR_SOCKET", "/from/environment", 1);
    EXPECT_EQ(parse({"stop"}).options.socket, "/from/environment");
    EXPECT_EQ(parse({"--socket", "/given", "stop"}).options.socket, "/given");
    setenv("TAVOR_SOCKET", "", 1);
    EXPECT_EQ(parse({"stop"}).options.socket, TAVOR_SOCKET_PATH) << "as if it were not set";
    unsetenv("TAVOR_SOCKET");
}

TEST(Options, WatchTakesItsLimits) {
    const Parsed parsed =
        parse({"watch", "--raw", "--count", "3", "--duration", "60", "--stop", "--timeout", "0"});
    EXPECT_FALSE(parsed.status) << parsed.err;
    EXPECT_TRUE(parsed.options.raw);
    EXPECT_TRUE(parsed.options.stop);
    EXPECT_EQ(parsed.options.count, 3);
    EXPECT_EQ(parsed.options.duration_s, 60.0);
    EXPECT_EQ(parsed.options.timeout_s, 0.0);
}

TEST(Options, StartMayWait) {
    EXPECT_FALSE(parse({"start"}).options.wait_s);
    EXPECT_EQ(parse({"start", "--wait"}).options.wait_s, 10.0);
    EXPECT_EQ(parse({"start", "--wait=2.5"}).options.wait_s, 2.5);
    EXPECT_EQ(parse({"start", "--fix"}).options.wait_s, 120.0);
    const Parsed both = parse({"start", "--fix", "--wait=5"});
    EXPECT_TRUE(both.options.fix);
    EXPECT_EQ(both.options.wait_s, 5.0);
    EXPECT_EQ(parse({"position", "--max-age", "2"}).options.max_age_s, 2.0);
    EXPECT_EQ(parse({"watch", "--duration", "0.25"}).options.duration_s, 0.25);
    const Parsed send = parse({"send", "stop", "--wait", "0"}); // a body may be the name of a command
    EXPECT_EQ(send.options.command, Command::kSend);
    EXPECT_EQ(send.options.body, "stop");
    EXPECT_EQ(send.options.wait_s, 0.0);
}

TEST(Options, HelpAndVersionGoToStandardOutputWithSuccess) {
    const Parsed version = parse({"--version"});
    EXPECT_EQ(version.status, kExitSuccess);
    EXPECT_EQ(version.out, "tavorctl " TAVOR_VERSION_FOR_TEST "\n");
    for (const char* command : {"start", "stop", "watch", "position", "save", "send", "debug", "assist",
                                "download", "status", "check"}) {
        const Parsed help = parse({command, "--help"});
        EXPECT_EQ(help.status, kExitSuccess) << command;
        EXPECT_NE(help.out.find(std::string("Examples:\n  tavorctl ") + command), std::string::npos)
            << help.out;
        EXPECT_NE(help.out.find("--timeout SECONDS"), std::string::npos) << command;
    }
    EXPECT_NE(parse({"--help"}).out.find("Exit status:"), std::string::npos);
    for (const char* command : {"export", "monitor"}) {
        EXPECT_EQ(parse({command, "--help"}).out.find("--json"), std::string::npos) << "they refuse it";
    }
}

TEST(Options, WrongCommandLinesAreToldInOneLineWithTheHelpToRead) {
    const std::string long_path(108, 'x');
    const std::vector<std::vector<const char*>> wrong = {
        {},
        {"foo"},
        {"start", "extra"},
        {"start", "stop"},
        {"--unknown", "start"},
        {"watch", "--timeout", "nan"},
        {"watch", "--timeout", "-1"},
        {"watch", "--timeout", "1e99"},
        {"watch", "--timeout", "5s"},
        {"watch", "--count", "0"},
        {"watch", "--count", "-1"},
        {"watch", "--count", "1.5"},
        {"watch", "--count", "99999999999999999999"},
        {"watch", "--duration", "0"},
        {"watch", "--duration", "-0"},
        {"watch", "--duration", "-1"},
        {"watch", "--duration", "soon"},
        {"watch", "--raw", "--json"},
        {"--json", "watch", "--raw"},
        {"start", "--raw"},
        {"start", "--wait=0"},
        {"start", "--wait=soon"},
        {"start", "--fix=3"},
        {"start", "--json=no"},
        {"position", "--max-age", "0"},
        {"download", "--check", "--force"},
        {"debug"},
        {"debug", "udp"},
        {"send"},
        {"send", ""},
        {"record", ""},
        {"export", "--gpx", ""},
        {"send", "a\nb"},
        {"--socket", "", "start"},
        {"--socket", long_path.c_str(), "start"},
    };
    for (const auto& arguments : wrong) {
        const Parsed parsed = parse(arguments);
        const std::string shown = arguments.empty() ? "nothing" : arguments.front();
        EXPECT_EQ(parsed.status, kExitUsage) << shown;
        EXPECT_EQ(lines_of(parsed.err).size(), 1U) << parsed.err;
        EXPECT_EQ(parsed.err.rfind("tavorctl: ", 0), 0U) << parsed.err;
        EXPECT_NE(parsed.err.find("--help'"), std::string::npos) << parsed.err;
        EXPECT_TRUE(parsed.out.empty() || parsed.out.front() == '{') << shown;
    }
}

TEST(Options, WhatIsNotExpectedIsToldAsItWasTyped) {
    EXPECT_EQ(parse({"watch", "--coutn", "5"}).err,
              "tavorctl: not expected: --coutn 5; see 'tavorctl watch --help'\n");
    EXPECT_EQ(parse({"--raw", "--coutn", "5"}).err,
              "tavorctl: not expected: --raw --coutn 5; see 'tavorctl --help'\n");
    EXPECT_EQ(parse({"--stop", "watch", "more"}).err,
              "tavorctl: not expected: --stop more; see 'tavorctl watch --help'\n");
}

TEST(Options, NumberBehindStartIsLedToTheWait) {
    for (const std::vector<const char*>& line : {std::vector<const char*>{"start", "--wait", "5"},
                                                 {"start", "--fix", "5"},
                                                 {"start", "5", "--json"}}) {
        const Parsed parsed = parse(line);
        EXPECT_EQ(parsed.status, kExitUsage);
        EXPECT_EQ(parsed.err,
                  "tavorctl: not expected: 5; how long to wait is given as --wait=5; see 'tavorctl "
                  "start --help'\n");
    }
    EXPECT_EQ(parse({"start", "--wait", "soon"}).err.find("--wait=soon"), std::string::npos);
    EXPECT_EQ(parse({"start", "0"}).err.find("--wait"), std::string::npos) << "--wait refuses 0";
    EXPECT_EQ(parse({"stop", "5"}).err.find("--wait"), std::string::npos);
}

// The parser itself does without a value, or takes the next word for it.
TEST(Options, AnOptionWithoutItsValueOrWithOneTooManyIsToldWithWhatToWrite) {
    struct Row {
        std::vector<const char*> line;
        const char* told;
    };
    const Row rows[] = {
        {{"start", "--wait="},
         "--wait= has no value: write --wait or --wait=SECONDS; see 'tavorctl start --help'"},
        {{"start", "--json="}, "--json= takes no value: write --json; see 'tavorctl start --help'"},
        {{"--json=", "start"}, "--json= takes no value: write --json; see 'tavorctl start --help'"},
        {{"send", "353", "--wait="},
         "--wait= has no value: write --wait=SECONDS; see 'tavorctl send --help'"},
        {{"--socket=", "start"}, "--socket= has no value: write --socket=PATH; see 'tavorctl --help'"},
        {{"watch", "--count=", "3"},
         "--count= has no value: write --count=LINES; see 'tavorctl watch --help'"},
        {{"watch", "--timeout="},
         "--timeout= has no value: write --timeout=SECONDS; see 'tavorctl watch --help'"},
        {{"export", "--gpx=", "f"}, "--gpx= takes no value: write --gpx; see 'tavorctl export --help'"},
        {{"watch", "--timeout"},
         "--timeout has no value: write --timeout=SECONDS; see 'tavorctl watch --help'"},
        {{"status", "--log", ""}, "--log has no value: write --log=FILE; see 'tavorctl status --help'"},
        {{"start", "--fix=true"}, "--fix=true takes no value: write --fix; see 'tavorctl start --help'"},
        {{"start", "--raw="}, "not expected: --raw=; see 'tavorctl start --help'"},
    };
    for (const Row& row : rows) {
        const Parsed parsed = parse(row.line);
        EXPECT_EQ(parsed.status, kExitUsage) << row.told;
        EXPECT_EQ(parsed.err, std::string("tavorctl: ") + row.told + "\n");
    }
    EXPECT_EQ(parse({"send", "--", "--wait="}).options.body, "--wait=")
        << "after the dashes nothing is an option";
}

TEST(Options, UnknownCommandIsNamedWithTheOneItIsAlmostCalled) {
    EXPECT_EQ(parse({"foo"}).err, "tavorctl: no command is called 'foo'; see 'tavorctl --help'\n");
    EXPECT_EQ(parse({""}).err, "tavorctl: no command is called ''; see 'tavorctl --help'\n");
    for (const auto& [typed, meant] :
         {std::pair("strat", "start"),
          {"wach", "watch"},
          {"positoin", "position"},
          {"stauts", "status"}, // two letters swapped are one change; "start" is two away
          {"sttus", "status"},
          {"statr", "start"},
          {"stopt", "stop"},
          {"recrod", "record"},
          {"stat", "status"},
          {"mon", "monitor"}}) {
        EXPECT_EQ(parse({typed}).err, std::string("tavorctl: no command is called '") + typed + "', but '" +
                                          meant + "' is; see 'tavorctl --help'\n");
    }
    EXPECT_EQ(parse({"xy"}).err.find("but '"), std::string::npos) << "too short to tell";
}

TEST(Words, SwappedNeighboursAreOneChange) {
    EXPECT_EQ(words_distance("stauts", "status"), 1U);
    EXPECT_EQ(words_distance("stauts", "start"), 2U);
    EXPECT_EQ(words_distance("ab", "ba"), 1U);
    EXPECT_EQ(words_distance("abc", "cba"), 2U) << "no neighbours";
    EXPECT_EQ(words_distance("", "abc"), 3U);
}

TEST(Words, OfEquallyNearNamesTheLongestCommonBeginningCounts) {
    EXPECT_EQ(words_nearest("sta", {"save", "stop", "start"}), 2U);
    EXPECT_EQ(words_nearest("sto", {"stop", "start"}), 0U) << "one change is nearer than a beginning";
    EXPECT_EQ(words_nearest("xyz", {"abc", "def"}), 0U);
    EXPECT_EQ(words_nearest("stat", {"start", "status"}), 1U) << "the rest is left out, nothing is mistyped";
}

TEST(Options, WrongCommandLineIsJsonToo) {
    const Parsed parsed = parse({"strat", "--json"});
    EXPECT_EQ(parsed.status, kExitUsage);
    EXPECT_EQ(
        parsed.out.rfind(R"({"type":"error","error":"usage","exit":64,"message":"no command is called)", 0),
        0U)
        << parsed.out;
}

TEST(Options, HelpAndManualHaveTheSameTableOfExitStatuses) {
    const std::string manual = ::manual();
    const std::string help = parse({"--help"}).out;
    std::set<int> numbers;
    for (const ExitMeaning& meaning : kExitMeanings) {
        EXPECT_TRUE(numbers.insert(meaning.status).second) << "two meanings of " << meaning.status;
        const std::string number = std::to_string(meaning.status);
        EXPECT_NE(help.find("\n  " + number + "  " + meaning.text + "\n"), std::string::npos) << help;
        EXPECT_NE(manual.find(".B " + number + "\n" + meaning.text + "\n"), std::string::npos) << number;
    }
}

TEST(Options, TheManualHasAnEntryForEachCommand) {
    const std::string page = manual();
    const size_t begin = page.find("\n.SH COMMANDS\n");
    const size_t end = page.find("\n.SH OPTIONS\n");
    ASSERT_LT(begin, end); // other parts of the page have entries of these names too
    const std::string commands = page.substr(begin, end - begin);
    for (const CommandRow& row : kCommands) {
        const std::string name = row.name;
        EXPECT_TRUE(commands.find("\n.TP\n.B " + name + "\n") != std::string::npos ||
                    commands.find("\n.TP\n\\fB" + name + "\\fR") != std::string::npos)
            << name;
    }
}

TEST(Options, ControlCharactersOfTheCommandLineAreNotEchoed) {
    EXPECT_EQ(parse({"debug", "\x1b[2J"}).err.find('\x1b'), std::string::npos);
    EXPECT_EQ(parse({"\x1b[2J"}).err.find('\x1b'), std::string::npos);
}

TEST(CommandBody, IsPrintableTextThatTheDaemonDoesNotCut) {
    EXPECT_EQ(options_check_body("353,1"), "");
    EXPECT_EQ(options_check_body(std::string(347, 'a')), "");
    EXPECT_NE(options_check_body(std::string(348, 'a')), "");
    EXPECT_NE(options_check_body(""), "");
    for (const char* body : {"$PZUL353,1", "353*1F", "353\r\n", "353\t1", "353\xc3\xa4", "PZUL353,1"}) {
        EXPECT_NE(options_check_body(body), "") << body;
    }
}
