// The tool itself, run as a process against a daemon that the test plays.
#include "support/capture.h"
#include "support/client_scene.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;
using Arguments = std::vector<std::string>;

constexpr char kBanner[] = "TAVOR Version:V1.3\n";
constexpr char kGga[] = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
constexpr char kChipAnswer[] = "$PZUL001,353,3*3B\r\n";

// Codes of the answers in the order of the request types.
constexpr uint32_t kCodes[] = {0, 1, 2, 3, 4, 4, 4, 4, 5, 7};

// Answers every request with the value; a start is followed by a short stretch of output.
FakeDaemon::Script answers(uint32_t value) {
    return [value](FakeDaemon& d, const tavor_request& request) {
        if (request.type < std::size(kCodes)) {
            d.send(make_response(kCodes[request.type], value));
        }
        if (request.type == TAVOR_REQUEST_START && value == 0) {
            d.send(make_response(TAVOR_CODE_NMEA, 0, kBanner));
            d.send(make_position("123519.000", "48.117300", "11.516667", "1592.300000"));
            d.send(make_response(TAVOR_CODE_NMEA, 0, kGga));
            d.send(make_response(TAVOR_CODE_CHIP, 0, kChipAnswer));
        }
    };
}

// Sends these to everything that asks.
FakeDaemon::Script sends(const std::vector<tavor_response>& responses) {
    return [responses](FakeDaemon& d, const tavor_request&) {
        for (const tavor_response& response : responses) {
            d.send(response);
        }
    };
}

const tavor_response kStarted = make_response(TAVOR_CODE_START, 0);
const tavor_response kStartFailed = make_response(TAVOR_CODE_START, TAVOR_VALUE_FAILED);
const tavor_response kSentence = make_response(TAVOR_CODE_NMEA, 0, kGga);
const tavor_response kAnswered = make_response(TAVOR_CODE_CHIP, 0, kChipAnswer);

using Scene = ClientScene;

bool is_one_line(const std::string& text) {
    return lines_of(text).size() == 1 && text.rfind("tavorctl: ", 0) == 0 && text.back() == '\n';
}

// Standard error is one line with this text in it.
testing::AssertionResult tells(const std::string& err, const std::string& text) {
    return is_one_line(err) && err.find(text) != std::string::npos
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "tells: " << err;
}

struct Simple {
    Arguments arguments;
    uint32_t type;
    std::string text;
};

const Simple kSimple[] = {
    {{"start"}, 0, "positioning started\n"},
    {{"stop"}, 1, "positioning stopped\n"},
    {{"download", "--force"}, 2, "firmware written\n"},
    {{"save"}, 3, "location saved\n"},
    {{"debug", "off"}, 4, "debug outlet switched\n"},
    {{"debug", "file"}, 5, "debug outlet switched\n"},
    {{"debug", "serial"}, 6, "debug outlet switched\n"},
    {{"debug", "tcp"}, 7, "debug outlet switched\n"},
    {{"send", "353,1", "--wait", "0"}, 8, ""},
    {{"assist", "--wait", "0"}, 9, "assistance download started\n"},
};

} // namespace

TEST(Tavorctl, SuccessIsStatusZeroAndQuietOnStandardError) {
    Scene scene(answers(0));
    for (const Simple& simple : kSimple) {
        const size_t before = scene.daemon.types().size();
        EXPECT_EQ(scene.run(simple.arguments), 0) << simple.arguments[0];
        EXPECT_EQ(scene.out, simple.text);
        EXPECT_EQ(scene.err, "") << simple.arguments[0];
        ASSERT_EQ(scene.daemon.types().size(), before + 1);
        EXPECT_EQ(scene.daemon.types().back(), simple.type);
    }
}

TEST(Tavorctl, OutletOverTcpTellsWhereItListens) {
    PrivateDir directory;
    std::filesystem::create_directories(directory.path / "etc/default/tavor");
    directory.write("etc/default/tavor/tavor.conf", "debug socket ip=127.0.0.7\ndebug socket port=7100\n");
    const FakeDaemon daemon(directory.path / "etc/default/tavor/tavor_sun_path", answers(0));
    Tool tool({TAVOR_CTL_PROGRAM, "--socket", daemon.path, "debug", "tcp"});
    EXPECT_EQ(tool.end(), 0);
    EXPECT_EQ(tool.out, "debug outlet switched\nby the settings it listens at 127.0.0.7, port 7100\n");
}

TEST(Tavorctl, FailureIsStatusOneAndOneLineThatSaysWhatToDo) {
    Scene scene(answers(TAVOR_VALUE_FAILED));
    for (const Simple& simple : kSimple) {
        EXPECT_EQ(scene.run(simple.arguments), 1) << simple.arguments[0];
        EXPECT_EQ(scene.out, "");
        EXPECT_TRUE(tells(scene.err, "; "));
    }
    for (const Arguments& follower : {Arguments{"watch"}, {"position"}, {"start", "--wait"}}) {
        EXPECT_EQ(scene.run(follower), 1);
        EXPECT_TRUE(is_one_line(scene.err)) << scene.err;
    }
}

TEST(Tavorctl, WrongCommandLineHasAStatusOfItsOwn) {
    Scene scene(answers(0));
    for (const Arguments& arguments :
         {Arguments{}, Arguments{"foo"}, Arguments{"debug", "x"}, Arguments{"send", "a*b"}}) {
        EXPECT_EQ(scene.run(arguments), 64);
        EXPECT_TRUE(is_one_line(scene.err)) << scene.err;
    }
    EXPECT_TRUE(scene.daemon.types().empty());
}

TEST(Tavorctl, NoDaemonIsStatusThree) {
    const PrivateDir directory;
    Tool tool({TAVOR_CTL_PROGRAM, "--json", "--socket", directory.path / "none", "start"});
    EXPECT_EQ(tool.end(), 3);
    EXPECT_TRUE(tells(tool.err, "no daemon at"));
    EXPECT_EQ(Json::parse(tool.out).at("error"), "no-daemon");
}

TEST(Tavorctl, NoAnswerIsStatusFourAndOnlyHarmlessRequestsAreRepeated) {
    const std::vector<uint32_t> harmless = {0, 1, 3, 4};
    for (const Simple& simple : kSimple) {
        Scene scene(sends({}));
        Arguments arguments = simple.arguments;
        arguments.insert(arguments.end(), {"--timeout", "0.5"});
        EXPECT_EQ(scene.run(arguments), 4) << simple.arguments[0];
        EXPECT_TRUE(tells(scene.err, "within 0.5 s"));
        const bool repeated = std::find(harmless.begin(), harmless.end(), simple.type) != harmless.end();
        const std::vector<uint32_t> expected(repeated ? 2 : 1, simple.type);
        EXPECT_TRUE(scene.daemon.wait_requests(expected.size()));
        EXPECT_EQ(scene.daemon.types(), expected) << simple.arguments[0];
    }
}

TEST(Tavorctl, ResultsAreJsonOnRequest) {
    Scene good(answers(0));
    EXPECT_EQ(good.run({"save", "--json"}), 0);
    EXPECT_EQ(Json::parse(good.out),
              (Json{{"type", "result"}, {"request", "save"}, {"ok", true}, {"value", 0}}));
    Scene bad(answers(TAVOR_VALUE_FAILED));
    EXPECT_EQ(bad.run({"--json", "save"}), 1);
    ASSERT_EQ(lines_of(bad.out).size(), 2U) << bad.out;
    EXPECT_EQ(Json::parse(lines_of(bad.out)[0]),
              (Json{{"type", "result"}, {"request", "save"}, {"ok", false}, {"value", -1}}));
    const Json error = Json::parse(lines_of(bad.out)[1]);
    EXPECT_EQ(error.at("type"), "error");
    EXPECT_EQ(error.at("error"), "failed");
    EXPECT_EQ(error.at("exit"), 1);
    EXPECT_EQ("tavorctl: " + error.at("message").get<std::string>() + "\n", bad.err);
}

namespace {

// An RMC sentence of this many seconds ago; the first answers of a daemon whose chip sends this position.
std::string rmc_of(int seconds_ago) {
    const time_t then = time(nullptr) - seconds_ago;
    tm utc = {};
    gmtime_r(&then, &utc);
    char text[100];
    snprintf(text, sizeof text, "$GPRMC,%02d%02d%02d.00,A,,,,,10.0,90.5,%02d%02d%02d,,,A*00\r\n", utc.tm_hour,
             utc.tm_min, utc.tm_sec, utc.tm_mday, utc.tm_mon + 1, utc.tm_year % 100);
    return text;
}

void send_epoch(const FakeDaemon& d, int seconds_ago, int quality) {
    const std::string rmc = rmc_of(seconds_ago);
    const std::string time = rmc.substr(7, 9);
    d.send(make_response(TAVOR_CODE_NMEA, 0, rmc));
    d.send(make_position(time, "48.117300", quality == 0 ? "1.0" : "11.516667", "9.5"));
    d.send(make_response(TAVOR_CODE_NMEA, 0,
                         "$GPGGA," + time + ",4807.038,N,01131.000,E," + std::to_string(quality) +
                             ",08,0.9,,,,,,*00\r\n"));
    d.send(make_response(TAVOR_CODE_NMEA, 0, "$GPGSA,A,3,1,,,,,,,,,,,,1.5,0.9,1.2*00\r\n"));
}

} // namespace

TEST(Position, HasWhatTheSentencesOfItsMomentTellAndPassesOverOnesWithoutAFix) {
    Scene scene([](FakeDaemon& d, const tavor_request&) {
        d.send(kStarted);
        send_epoch(d, 1, 0);
        send_epoch(d, 0, 1);
    });
    ASSERT_EQ(scene.run({"position", "--json", "--timeout", "20"}), 0) << scene.err;
    const Json position = Json::parse(scene.out);
    EXPECT_EQ(position.at("longitude"), 11.516667);
    EXPECT_EQ(position.at("quality"), 1);
    EXPECT_EQ(position.at("satellites"), 8);
    EXPECT_EQ(position.at("pdop"), 1.5);
    EXPECT_EQ(position.at("speed"), 5.144);
    EXPECT_EQ(position.at("course"), 90.5);
    EXPECT_EQ(position.at("time").get<std::string>().size(), 24U);
    EXPECT_LT(position.at("age"), 60);
}

TEST(Position, OldOneSaysSoOrIsPassedOver) {
    Scene scene([](FakeDaemon& d, const tavor_request&) {
        d.send(kStarted);
        send_epoch(d, 600, 1);
    });
    EXPECT_EQ(scene.run({"position", "--timeout", "20"}), 0);
    EXPECT_EQ(scene.err.rfind("tavorctl: this position is 60", 0), 0U) << scene.err;
    EXPECT_EQ(scene.run({"position", "--max-age", "60", "--timeout", "1"}), 6);
    EXPECT_TRUE(tells(scene.err, "no position as young as asked for within 1 s: the last was 60"));
    Scene undated(answers(0));
    EXPECT_EQ(undated.run({"position", "--max-age", "60", "--timeout", "1"}), 6);
    EXPECT_TRUE(tells(undated.err, "its age can't be told"));
}

TEST(Start, WaitIsASuccessOnlyWhenTheChipSends) {
    Scene silent(sends({kStarted}));
    EXPECT_EQ(silent.run({"start", "--wait=0.5", "--json"}), 5);
    EXPECT_TRUE(is_one_line(silent.err)) << silent.err;
    EXPECT_EQ(Json::parse(lines_of(silent.out).back()).at("error"), "silent-chip");
    Scene good(answers(0));
    EXPECT_EQ(good.run({"start", "--wait"}), 0) << good.err;
    EXPECT_EQ(good.out, "positioning started\nthe chip has a fix\n");
}

TEST(Start, FixIsASuccessOnlyWithAFix) {
    for (const int quality : {0, 1}) {
        Scene scene([quality](FakeDaemon& d, const tavor_request&) {
            d.send(kStarted);
            send_epoch(d, 0, quality);
        });
        EXPECT_EQ(scene.run({"start", "--fix", "--wait=0.5", "--json"}), quality == 0 ? 6 : 0);
        EXPECT_EQ(scene.out.find(R"({"type":"ready","fix":true})") != std::string::npos, quality == 1)
            << scene.out;
    }
}

TEST(Watch, JsonPositionHasTheQualityOfTheSentenceBehindIt) {
    Scene scene([](FakeDaemon& d, const tavor_request&) {
        d.send(kStarted);
        send_epoch(d, 0, 4);
    });
    EXPECT_EQ(scene.run({"watch", "--json", "--count", "4"}), 0);
    ASSERT_EQ(lines_of(scene.out).size(), 4U) << scene.out;
    const Json position = Json::parse(lines_of(scene.out)[2]);
    EXPECT_EQ(position.at("type"), "position") << "before its sentence, as it comes";
    EXPECT_EQ(position.at("quality"), 4);
    EXPECT_NE(scene.out.find("GPGGA"), std::string::npos);
}

TEST(Position, WithoutAFixIsToldFromAChipThatSendsNothing) {
    const tavor_response banner = make_response(TAVOR_CODE_NMEA, 0, kBanner); // the daemon's own line
    const struct {
        std::vector<tavor_response> responses;
        int status;
        const char* told;
    } rows[] = {{{kStarted, kSentence}, 6, "no position within 1 s: the chip has no fix yet"},
                {{kStarted, kAnswered}, 6, "no position within 1 s: the chip has no fix yet"},
                {{banner, kStarted}, 5, "no position within 1 s: nothing came from the chip"}};
    for (const auto& row : rows) {
        Scene scene(sends(row.responses));
        EXPECT_EQ(scene.run({"position", "--timeout", "1"}), row.status);
        EXPECT_TRUE(tells(scene.err, row.told));
    }
}

TEST(Watch, ShowsEverythingOneLineEach) {
    Scene scene(answers(0));
    EXPECT_EQ(scene.run({"watch", "--count", "5"}), 0);
    EXPECT_EQ(
        lines_of(scene.out),
        (std::vector<std::string>{"daemon: positioning started", "daemon: TAVOR Version:V1.3",
                                  "position: 12:35:19.000 UTC, 48.117300 N, 11.516667 E, height 1592.3 m",
                                  "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47",
                                  "chip: $PZUL001,353,3*3B"}));
    EXPECT_EQ(scene.err, "");
    EXPECT_EQ(scene.run({"watch", "--duration", "1.5"}), 0) << scene.err;
    EXPECT_EQ(lines_of(scene.out).size(), 5U);
    EXPECT_EQ(scene.daemon.types(), std::vector<uint32_t>(2, TAVOR_REQUEST_START))
        << "positioning is left on";
    EXPECT_EQ(scene.run({"watch", "--raw", "--count", "1", "--stop"}), 0) << scene.err;
    EXPECT_EQ(scene.out, kGga);
    EXPECT_EQ(scene.daemon.types().back(), TAVOR_REQUEST_STOP + 0U);
}

TEST(Watch, WithoutAnAnswerIsStatusFour) {
    Scene scene(sends({}));
    EXPECT_EQ(scene.run({"watch", "--stop", "--timeout", "0.3"}), 4);
    EXPECT_TRUE(is_one_line(scene.err)) << scene.err;
    EXPECT_TRUE(scene.daemon.wait_requests(2));
    EXPECT_EQ(scene.daemon.types(), (std::vector<uint32_t>{TAVOR_REQUEST_START, TAVOR_REQUEST_START}));
}

TEST(Watch, TakesTheOutputBackAfterSilenceWithoutStartingAnything) {
    Scene scene([](FakeDaemon& d, const tavor_request& request) {
        d.send(request.type == TAVOR_REQUEST_START ? kStarted : kSentence);
    });
    EXPECT_EQ(scene.run({"watch", "--timeout", "1.5", "--count", "2"}), 0);
    EXPECT_EQ(scene.daemon.types(), (std::vector<uint32_t>{TAVOR_REQUEST_START, 0xFFFFFFFF}));
    EXPECT_TRUE(tells(scene.err, "another client took it"));
}

TEST(Watch, StartThatFailsLaterEndsItWithStatusOne) {
    Scene scene(sends({kStarted, kStartFailed}));
    EXPECT_EQ(scene.run({"watch"}), 1);
    EXPECT_TRUE(is_one_line(scene.err)) << scene.err;
}

TEST(Watch, ReaderThatGoesAwayEndsItQuietly) {
    Scene scene(answers(0));
    Tool tool(scene.line({"watch"}));
    ASSERT_TRUE(tool.wait_out("\n"));
    tool.close_out();
    EXPECT_EQ(tool.end(), 0);
    EXPECT_EQ(tool.err, "");
}

TEST(Watch, StopsPositioningAlsoWhenItsReaderWentAway) {
    Scene scene([](FakeDaemon& d, const tavor_request& request) {
        d.send(
            make_response(kCodes[request.type], request.type == TAVOR_REQUEST_STOP ? TAVOR_VALUE_FAILED : 0));
    });
    Tool tool(scene.line({"watch", "--stop"}));
    ASSERT_TRUE(tool.wait_out("\n"));
    tool.close_out();
    EXPECT_EQ(tool.end(), 1) << "the failed stop is seen";
    EXPECT_EQ(scene.daemon.types(), (std::vector<uint32_t>{TAVOR_REQUEST_START, TAVOR_REQUEST_STOP}));
}

TEST(Tavorctl, ReaderThatIsGoneDoesNotChangeTheStatus) {
    for (const uint32_t value : {0U, TAVOR_VALUE_FAILED}) {
        Scene scene([value](FakeDaemon& d, const tavor_request& request) {
            if (d.types().size() == 2) { // the repeated one: the reader is gone by then
                d.send(make_response(kCodes[request.type], value));
            }
        });
        Tool tool(scene.line({"save", "--json"}));
        tool.close_out();
        EXPECT_EQ(tool.end(), value == 0 ? 0 : 1);
        EXPECT_EQ(tool.err.empty(), value == 0) << tool.err;
    }
}

TEST(Watch, FullDiskIsToldAndNoFailureOfTheDaemon) {
    Scene scene(answers(0));
    Tool tool({"/bin/sh", "-c", "exec \"$0\" --socket \"$1\" watch > /dev/full", TAVOR_CTL_PROGRAM,
               scene.daemon.path});
    EXPECT_EQ(tool.end(), 74);
    EXPECT_TRUE(tells(tool.err, "No space left on device"));
}

TEST(Tavorctl, HelpAndVersionThatCanNotBeWrittenAreNoSuccess) {
    for (const char* arguments : {"--help", "--version", "watch --help"}) {
        Tool tool(
            {"/bin/sh", "-c", std::string("exec \"$0\" ") + arguments + " > /dev/full", TAVOR_CTL_PROGRAM});
        EXPECT_EQ(tool.end(), 74) << arguments;
        EXPECT_EQ(tool.err, "tavorctl: cannot write the output: No space left on device; free space or write "
                            "elsewhere\n");
    }
}

TEST(Tavorctl, HelpForAReaderThatIsGoneIsAnOrdinaryEnd) {
    Tool tool({TAVOR_CTL_PROGRAM, "--help"});
    tool.close_out();
    EXPECT_EQ(tool.end(), 0) << tool.err;
    EXPECT_EQ(tool.err, "");
}

TEST(Watch, ClosedStandardOutputNeverBecomesTheSocket) {
    Scene scene(answers(0));
    Tool tool(scene.line({"watch", "--count", "5"}), true);
    EXPECT_EQ(tool.end(), 74) << tool.err;
    EXPECT_EQ(scene.daemon.types(), std::vector<uint32_t>{TAVOR_REQUEST_START});
}

TEST(Watch, InterruptIsItsOrdinaryEndButBeforeItsLimit) {
    const struct {
        Arguments options;
        int signal;
        int status; // as the shell sees it
        std::vector<uint32_t> types;
    } rows[] = {{{}, SIGINT, 0, {TAVOR_REQUEST_START}},
                {{}, SIGTERM, 0, {TAVOR_REQUEST_START}},
                {{}, SIGHUP, 0, {TAVOR_REQUEST_START}},
                {{"--stop"}, SIGINT, 0, {TAVOR_REQUEST_START, TAVOR_REQUEST_STOP}},
                {{"--count", "100"}, SIGINT, 128 + SIGINT, {TAVOR_REQUEST_START}}};
    for (const auto& row : rows) {
        Scene scene(answers(0));
        Arguments arguments = {"watch"};
        arguments.insert(arguments.end(), row.options.begin(), row.options.end());
        Tool tool(scene.line(arguments));
        ASSERT_TRUE(tool.wait_out("chip: ")) << tool.err;
        tool.signal(row.signal);
        EXPECT_EQ(tool.end(), row.status) << tool.err;
        EXPECT_EQ(tool.err, "");
        EXPECT_EQ(scene.daemon.types(), row.types);
    }
}

TEST(Watch, HangUpThatTheParentIgnoresIsIgnored) {
    Scene scene(answers(0));
    Tool tool({"/bin/sh", "-c", "trap '' HUP; exec \"$0\" --socket \"$1\" watch --duration 1",
               TAVOR_CTL_PROGRAM, scene.daemon.path});
    ASSERT_TRUE(tool.wait_out("chip: "));
    tool.signal(SIGHUP);
    EXPECT_EQ(tool.end(), 0) << "the end of its duration, not 129";
}

TEST(Tavorctl, InterruptWhileWaitingLeavesNoFileBehind) {
    Scene scene(sends({}));
    Tool tool(scene.line({"download"}));
    ASSERT_TRUE(scene.daemon.wait_requests(1));
    tool.signal(SIGINT);
    EXPECT_EQ(tool.end(), 128 + SIGINT);
    EXPECT_NE(tool.err.find("the daemon goes on writing firmware"), std::string::npos) << tool.err;
    const std::filesystem::directory_iterator entries(scene.directory.path);
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << "the daemon's socket only";
}

TEST(Send, PrintsTheChipsAnswersAndNothingElse) {
    const tavor_response result = make_response(TAVOR_CODE_CHIP, 0);
    Scene scene(sends({kSentence, result, kSentence, kAnswered}));
    EXPECT_EQ(scene.run({"send", "353,1", "--wait", "0.3"}), 0);
    EXPECT_EQ(scene.out, "$PZUL001,353,3*3B\n");
    EXPECT_EQ(scene.err, "");
    EXPECT_EQ(scene.daemon.texts(), std::vector<std::string>{"353,1"});
    EXPECT_EQ(scene.run({"send", "353,1", "--wait", "0.3", "--json"}), 0);
    ASSERT_EQ(lines_of(scene.out).size(), 2U);
    EXPECT_EQ(Json::parse(lines_of(scene.out)[0]).at("request"), "send");
    EXPECT_EQ(Json::parse(lines_of(scene.out)[1]).at("sentence"), "$PZUL001,353,3*3B");

    Scene early(sends({kAnswered, result}));
    EXPECT_EQ(early.run({"send", "353,1", "--wait", "0"}), 0);
    EXPECT_EQ(early.out, "$PZUL001,353,3*3B\n") << "also before the result";
}

TEST(Send, ChipThatAnswersNothingIsNoFailure) {
    Scene scene(answers(0));
    EXPECT_EQ(scene.run({"send", "353,1", "--wait", "0.1"}), 0);
    EXPECT_EQ(scene.out, "");
    EXPECT_TRUE(tells(scene.err, "answered nothing within 0.1 s"));
}

namespace {

// What comes after the start of the assistance download, and how the tool ends.
struct Assisted {
    std::vector<uint32_t> results; // 0 or failure, in order
    Arguments options;
    std::string interrupt; // text on either output after which it is interrupted; empty: it ends by itself
    int status;
    size_t downloaded; // lines that tell a good download
    bool failure;      // is told on standard error
};

constexpr uint32_t kBad = TAVOR_VALUE_FAILED;
constexpr char kDownloaded[] = "assistance data downloaded\n";

} // namespace

TEST(Assist, EndsWithTheStatusOfTheLastDownload) {
    const Arguments wait = {"--wait", "0.2"};
    const Arguments once = {"--once", "--wait", "3600"};
    const Assisted rows[] = {{{0}, wait, "", 0, 1, false},
                             {{kBad}, wait, "", 1, 0, true},
                             {{0, 0, 0}, {"--once", "--wait", "0.2"}, "", 0, 3, false}, // a whole cycle
                             {{0, kBad}, once, "", 1, 1, true},
                             {{kBad, 0}, wait, "", 0, 1, true}, // retried well
                             {{0}, {}, kDownloaded, 0, 1, false},
                             {{0, kBad}, {}, "could not be downloaded", 1, 1, true},
                             {{kBad, 0}, {}, kDownloaded, 0, 1, true},
                             {{0}, once, kDownloaded, 128 + SIGINT, 1, false}}; // before its limit
    for (const Assisted& row : rows) {
        SCOPED_TRACE(&row - rows);
        std::vector<tavor_response> responses = {make_response(TAVOR_CODE_ASSIST, 0), kSentence};
        for (const uint32_t result : row.results) {
            responses.push_back(make_response(TAVOR_CODE_ASSIST_RESULT, result));
        }
        Scene scene(sends(responses));
        Arguments arguments = {"assist"};
        arguments.insert(arguments.end(), row.options.begin(), row.options.end());
        Tool tool(scene.line(arguments));
        if (!row.interrupt.empty()) {
            ASSERT_TRUE(row.failure && row.status == 1 ? tool.wait_err(row.interrupt)
                                                       : tool.wait_out(row.interrupt));
            tool.signal(SIGINT);
        }
        EXPECT_EQ(tool.end(), row.status) << tool.err;
        std::string expected = "assistance download started\n";
        for (size_t i = 0; i < row.downloaded; ++i) {
            expected += kDownloaded;
        }
        EXPECT_EQ(tool.out, expected);
        EXPECT_EQ(is_one_line(tool.err), row.failure) << tool.err;
        EXPECT_EQ(tool.err.find("'XOD device id='") != std::string::npos, row.failure) << tool.err;
    }
}

TEST(AssistWait, NoDownloadInTheTimeIsStillAStart) {
    Scene scene(answers(0));
    EXPECT_EQ(scene.run({"assist", "--wait", "0.1"}), 0);
    EXPECT_TRUE(tells(scene.err, "no download ended within 0.1 s"));
    EXPECT_TRUE(tells(scene.err, "a download that failed waits for its retry"));
}

TEST(Tavorctl, SocketComesFromTheEnvironment) {
    Scene scene(answers(0));
    Tool tool({"/usr/bin/env", "TAVOR_SOCKET=" + scene.daemon.path, TAVOR_CTL_PROGRAM, "start"});
    EXPECT_EQ(tool.end(), 0) << tool.err;
}
