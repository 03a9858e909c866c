// 'tavorctl record' and 'tavorctl export' against a daemon that the test plays.
#include "support/capture.h"
#include "support/client_scene.h"
#include "support/wait.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace {

using Arguments = std::vector<std::string>;
using std::string;

constexpr char kRmc[] = "$GNRMC,151620.00,A,4317.71149,N,00521.92193,E,15.551,45.61,211126,,,A,V*02\r\n";
constexpr char kGga[] = "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7D\r\n";
constexpr char kGgaLater[] = "$GNGGA,151621.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7C\r\n";
constexpr char kChip[] = "$PZUL001,353,3*24\r\n";

// Answers a start and sends an epoch and an answer of the chip.
void play(FakeDaemon& d, const tavor_request& request) {
    d.send(make_response(request.type, 0));
    if (request.type == TAVOR_REQUEST_START) {
        d.send(make_response(TAVOR_CODE_NMEA, 0, "TAVOR Version:V1.3\n"));
        d.send(make_response(TAVOR_CODE_NMEA, 0, kRmc));
        d.send(make_position("151620.00", "43.295192", "5.365366", "62.000000"));
        d.send(make_response(TAVOR_CODE_NMEA, 0, kGga));
        d.send(make_response(TAVOR_CODE_CHIP, 0, kChip));
    }
}

constexpr int kLimitMs = 60000;
constexpr size_t kNearlyFull = 50000; // bytes, of the 65536 of a pipe
constexpr int kTerminalFull = 4000;   // bytes, of the 4095 for a reader; more of them wait behind

struct Scene : ClientScene {
    explicit Scene(const FakeDaemon::Script& script = play) : ClientScene(script) {}

    // Runs 'record' until the epoch is in the file, then ends it by the signal.
    int record(Arguments options, int signal = SIGINT) {
        options.insert(options.begin(), "record");
        options.push_back(file);
        const bool anew = options[1] != "--append";
        const size_t before = anew ? 0 : directory.read("track").size();
        Tool tool(line(options));
        EXPECT_TRUE(wait_until([&] { return directory.read("track").size() > before && ends_with_chip(); }));
        tool.signal(signal);
        return end(tool);
    }
    bool ends_with_chip() const {
        const string content = directory.read("track");
        return content.size() > sizeof kChip && content.substr(content.size() - sizeof kChip + 1) == kChip;
    }

    const string file = directory.path / "track";
};

const string kEpoch = string(kRmc) + kGga + kChip;

// More than any pipe holds as a track: each epoch but the first is out of order, and begins a segment.
string many_epochs() {
    string text;
    for (int i = 0; i < 2000; ++i) {
        text += i % 2 == 0 ? kGga : kGgaLater;
    }
    return kRmc + text;
}

} // namespace

TEST(Record, WritesSentencesAsTheyComeUntilInterrupted) {
    Scene scene;
    EXPECT_EQ(scene.record({}), 0);
    EXPECT_EQ(scene.directory.read("track"), kEpoch);
    EXPECT_EQ(scene.out, "");
    EXPECT_EQ(scene.err.rfind("tavorctl: 3 sentences, " + std::to_string(kEpoch.size()) + " bytes in ", 0),
              0U)
        << scene.err;
    EXPECT_EQ(scene.daemon.types(), std::vector<uint32_t>{TAVOR_REQUEST_START});
}

TEST(Record, KillLosesNothing) {
    Scene scene;
    EXPECT_EQ(scene.record({}, SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(scene.directory.read("track"), kEpoch);
}

TEST(Record, StopsAtTheEndWhereAsked) {
    Scene scene;
    EXPECT_EQ(scene.record({"--stop"}), 0);
    EXPECT_EQ(scene.daemon.types().back(), static_cast<uint32_t>(TAVOR_REQUEST_STOP));
}

TEST(Record, NoOptionIsNamedThatWouldNotHelpWithWhatIsNoFile) {
    Scene scene;
    for (const char* place : {"/tmp", "/dev/null"}) {
        EXPECT_EQ(scene.run({"record", "--duration", "1", place}), 74);
        EXPECT_EQ(scene.err,
                  std::string("tavorctl: ") + place + ": no regular file; '-' is standard output\n");
    }
}

TEST(Record, FileThatIsThereIsOnlyChangedOnDemand) {
    Scene scene;
    scene.directory.write("track", "before");
    EXPECT_EQ(scene.run({"record", "--duration", "1", scene.file}), 74);
    EXPECT_NE(scene.err.find("there is a file already; --append goes on after it, --force replaces it"),
              string::npos)
        << scene.err;
    EXPECT_EQ(scene.directory.read("track"), "before");
    EXPECT_EQ(scene.daemon.types().size(), 0U) << "nothing was started";
    EXPECT_EQ(scene.record({"--append"}), 0);
    EXPECT_EQ(scene.directory.read("track"), "before\r\n" + kEpoch);
    EXPECT_EQ(scene.record({"--append"}), 0);
    EXPECT_EQ(scene.directory.read("track"), "before\r\n" + kEpoch + kEpoch);
    scene.directory.write("track", "before");
    EXPECT_EQ(scene.record({"--force"}), 0);
    EXPECT_EQ(scene.directory.read("track"), kEpoch);
    EXPECT_EQ(scene.run({"record", "--duration", "1", "--force", scene.directory.path}), 74);
    EXPECT_EQ(scene.run({"record", "--force", "--append", scene.file}), 64);
}

TEST(Record, StampsStandInFrontOfTheirSentences) {
    Scene scene;
    EXPECT_EQ(scene.record({"--stamps"}), 0);
    const auto lines = lines_of(scene.directory.read("track"));
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0].substr(0, 4), "# 20");
    EXPECT_EQ(lines[0].size(), string("# 2026-11-21T15:16:20.000Z\r").size());
    EXPECT_EQ(lines[1] + "\n", kRmc);
}

TEST(Record, StandardOutputHoldsSentencesOnly) {
    Scene scene;
    Tool tool(scene.line({"record", "-"}));
    EXPECT_TRUE(tool.wait_out(kChip));
    tool.close_out();
    EXPECT_EQ(tool.end(), 0);
    EXPECT_EQ(tool.out, kEpoch);
    EXPECT_EQ(tool.err, "") << "a reader that has gone has seen enough";
    EXPECT_EQ(scene.run({"record", "--json", "-"}), 64);
}

TEST(Record, TerminalGetsNoBytesOfTheChipAsTheyAre) {
    Scene scene([](FakeDaemon& d, const tavor_request& request) {
        d.send(make_response(request.type, 0));
        d.send(make_response(TAVOR_CODE_NMEA, 0, "$GP\x1b[2J\x80*00\r\n"));
    });
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(master) + unlockpt(master), 0);
    Tool tool({"/bin/sh", "-c", "exec \"$0\" --socket \"$1\" record - >\"$2\"", TAVOR_CTL_PROGRAM,
               scene.daemon.path, ptsname(master)});
    std::array<char, 256> bytes = {};
    pollfd readable = {master, POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, kLimitMs), 1);
    const ssize_t size = read(master, bytes.data(), bytes.size());
    tool.signal(SIGINT);
    EXPECT_EQ(tool.end(), 0);
    close(master);
    EXPECT_EQ(string(bytes.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))),
              "$GP\\x1b[2J\\x80*00\r\n");
}

TEST(Record, SignalEndsItAlsoWhileNobodyReads) {
    Scene scene([](FakeDaemon& d, const tavor_request& request) {
        bool open = d.send(make_response(request.type, 0));
        while (open) { // until the tool has gone
            open = d.send(make_response(TAVOR_CODE_NMEA, 0, kGga));
        }
    });
    Tool tool(scene.line({"record", "-"}));
    EXPECT_TRUE(tool.wait_unread(kNearlyFull));
    tool.signal(SIGTERM);
    EXPECT_TRUE(tool.wait_gone()) << "by the signal, or in order when it came just before the pipe was full";
}

TEST(Record, FullDiskIsToldAndLeavesWhatCameBefore) {
    Scene scene;
    scene.directory.write("track", string(1000, '#') + "\n");
    Tool tool({"/bin/sh", "-c",
               "trap '' XFSZ; ulimit -f 2; exec \"$0\" --socket \"$1\" record --append \"$2\"",
               TAVOR_CTL_PROGRAM, scene.daemon.path, scene.file}); // blocks of 512 bytes
    EXPECT_EQ(tool.end(), 74);
    EXPECT_NE(tool.err.find("cannot write " + scene.file + ": File too large; what came before is there"),
              string::npos)
        << tool.err;
}

TEST(Export, LiveTrackEndsWholeWhenInterrupted) {
    Scene scene([](FakeDaemon& d, const tavor_request& request) { d.send(make_response(request.type, 0)); });
    Tool tool(scene.line({"export", "--gpx"}));
    EXPECT_TRUE(tool.wait_out("<trk>\n"));
    EXPECT_TRUE(scene.daemon.wait_requests(1));
    tool.signal(SIGINT);
    EXPECT_EQ(tool.end(), 6) << "nothing has come of the chip";
    EXPECT_NE(tool.out.find("</gpx>\n"), string::npos);
}

TEST(Export, SignalEndsALiveTrackWhoseReaderPauses) {
    Scene scene([](FakeDaemon& d, const tavor_request& request) { d.send(make_response(request.type, 0)); });
    Tool tool(scene.line({"export", "--gpx"}));
    tool.shrink_out();
    ASSERT_TRUE(tool.wait_unread(1)) << "the track's begin leaves no room for its end";
    ASSERT_TRUE(scene.daemon.wait_requests(1));
    ASSERT_TRUE(tool.wait_asleep());
    tool.signal(SIGTERM);
    EXPECT_TRUE(tool.wait_gone());
    EXPECT_EQ(tool.end(), 128 + SIGTERM);
    EXPECT_EQ(tool.out.find("</gpx>"), string::npos);
}

TEST(Export, RecordingNeedsNoDaemon) {
    Scene scene;
    scene.directory.write("track", kEpoch + "junk\n" + string(5000, 'x') + "\n$GNGGA*00\n");
    Tool tool({TAVOR_CTL_PROGRAM, "--socket", "/none", "export", "--csv", scene.file});
    EXPECT_EQ(tool.end(), 0);
    const auto lines = lines_of(tool.out);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1],
              "2026-11-21T15:16:20.000Z,43.29519150,5.36536550,12.20,49.80,1,20,0.72,,,8.000,45.61,1");
    EXPECT_EQ(tool.err,
              "tavorctl: 1 point in 1 segment, from 3 sentences; 2 lines left out, damaged or too long\n");
}

TEST(Export, SignalEndsItAlsoWhileNobodyReads) {
    Scene scene;
    scene.directory.write("track", many_epochs());
    Tool tool(scene.line({"export", "--gpx", scene.file}));
    EXPECT_TRUE(tool.wait_unread(kNearlyFull));
    tool.signal(SIGTERM);
    EXPECT_TRUE(tool.wait_gone());
    EXPECT_EQ(tool.end(), 128 + SIGTERM);
}

TEST(Export, SignalEndsItOnATerminalThatTakesNothing) {
    Scene scene;
    scene.directory.write("track", many_epochs());
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(master) + unlockpt(master), 0);
    Tool tool({"/bin/sh", "-c", "exec \"$0\" export --gpx \"$1\" >\"$2\" 2>&1", TAVOR_CTL_PROGRAM, scene.file,
               ptsname(master)});
    EXPECT_TRUE(wait_until([&] {
        int waiting = 0;
        return ioctl(master, FIONREAD, &waiting) == 0 && waiting >= kTerminalFull;
    }));
    EXPECT_TRUE(tool.wait_asleep()) << "the file never makes it wait, so the terminal does";
    tool.signal(SIGTERM);
    EXPECT_TRUE(tool.wait_gone());
    close(master); // lets go of what is held up
    EXPECT_EQ(tool.end(), 128 + SIGTERM);
}

TEST(Export, ReaderThatHasGoneEndsItQuietly) {
    Scene scene;
    scene.directory.write("track", many_epochs());
    Tool begun(scene.line({"export", "--gpx", scene.file}));
    EXPECT_TRUE(begun.wait_out("<trkpt"));
    begun.close_out();
    EXPECT_EQ(begun.end(), 0);
    EXPECT_EQ(begun.err, "");
    Tool unread({"/bin/sh", "-c", "\"$0\" export --gpx \"$1\"; echo $? >&2", TAVOR_CTL_PROGRAM, scene.file});
    unread.close_out();
    EXPECT_EQ(unread.end(), 0);
    EXPECT_EQ(unread.err, "0\n") << "an empty track is another end";
}

TEST(Export, TrackWithoutAPositionIsToldByItsStatus) {
    Scene scene;
    scene.directory.write("track", kChip);
    EXPECT_EQ(scene.run({"export", "--geojson", scene.file}), 6);
    EXPECT_EQ(scene.out, "{\"type\":\"FeatureCollection\",\"features\":[\n\n]}\n");
    EXPECT_EQ(scene.run({"export", scene.file}), 64) << "no format";
    EXPECT_EQ(scene.run({"export", "--csv", "--json", scene.file}), 64);
}

TEST(Export, NoTrackBeginsWithoutARecordingToRead) {
    Scene scene;
    const string directory = scene.directory.path;
    const string remedy = "; name a recording, or '-' for standard input\n";
    EXPECT_EQ(scene.run({"export", "--gpx", directory}), 74);
    EXPECT_EQ(scene.out, "");
    EXPECT_EQ(scene.err, "tavorctl: cannot read " + directory + ": Is a directory" + remedy);
    EXPECT_EQ(scene.run({"export", "--gpx", "/none"}), 74);
    EXPECT_EQ(scene.out, "");
    EXPECT_EQ(scene.err, "tavorctl: cannot read /none: No such file or directory" + remedy);
    Tool input({"/bin/sh", "-c", "exec \"$0\" export --gpx - <\"$1\"", TAVOR_CTL_PROGRAM, directory});
    EXPECT_EQ(input.end(), 74);
    EXPECT_EQ(input.out, "");
    EXPECT_EQ(input.err, "tavorctl: cannot read standard input: Is a directory" + remedy);
}
