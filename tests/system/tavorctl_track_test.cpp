// 'tavorctl record' and 'tavorctl export' against a daemon that the test plays.
#include "support/capture.h"
#include "support/client_fake_daemon.h"
#include "support/client_tool.h"
#include "support/private_dir.h"
#include "support/wait.h"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Arguments = std::vector<std::string>;
using std::string;

constexpr char kRmc[] = "$GNRMC,151620.00,A,4317.71149,N,00521.92193,E,15.551,45.61,211126,,,A,V*02\r\n";
constexpr char kGga[] = "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7D\r\n";
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

struct Scene {
    Scene() : daemon(directory.path / "socket", play) {}

    Arguments line(Arguments arguments) const {
        arguments.insert(arguments.begin(), {TAVOR_CTL_PROGRAM, "--socket", daemon.path});
        return arguments;
    }
    int run(const Arguments& arguments) {
        Tool tool(line(arguments));
        const int status = tool.end();
        out = tool.out;
        err = tool.err;
        return status;
    }
    // Runs 'record' until the epoch is in the file, then ends it by the signal.
    int record(Arguments options, int signal = SIGINT) {
        options.insert(options.begin(), "record");
        options.push_back(file);
        const bool anew = options[1] != "--append";
        const size_t before = anew ? 0 : directory.read("track").size();
        Tool tool(line(options));
        EXPECT_TRUE(wait_until([&] { return directory.read("track").size() > before && ends_with_chip(); }));
        tool.signal(signal);
        const int status = tool.end();
        out = tool.out;
        err = tool.err;
        return status;
    }
    bool ends_with_chip() const {
        const string content = directory.read("track");
        return content.size() > sizeof kChip && content.substr(content.size() - sizeof kChip + 1) == kChip;
    }

    PrivateDir directory;
    FakeDaemon daemon;
    const string file = directory.path / "track";
    string out;
    string err;
};

const string kEpoch = string(kRmc) + kGga + kChip;

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

TEST(Record, FileThatIsThereIsOnlyChangedOnDemand) {
    Scene scene;
    scene.directory.write("track", "before");
    EXPECT_EQ(scene.run({"record", "--duration", "1", scene.file}), 74);
    EXPECT_NE(scene.err.find("there is a file already; --append goes on behind it, --force replaces it"),
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
    EXPECT_EQ(scene.run({"record", "--json", "-"}), 64);
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
    Scene scene;
    Tool tool(scene.line({"export", "--gpx"}));
    EXPECT_TRUE(tool.wait_out("<trk>\n"));
    EXPECT_TRUE(scene.daemon.wait_requests(1));
    tool.signal(SIGINT);
    EXPECT_EQ(tool.end(), 6) << "the only moment is not over";
    EXPECT_NE(tool.out.find("</gpx>\n"), string::npos);
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

TEST(Export, TrackWithoutAPositionIsToldByItsStatus) {
    Scene scene;
    scene.directory.write("track", kChip);
    EXPECT_EQ(scene.run({"export", "--geojson", scene.file}), 6);
    EXPECT_EQ(scene.out, "{\"type\":\"FeatureCollection\",\"features\":[\n\n]}\n");
    EXPECT_EQ(scene.run({"export", "--geojson", scene.directory.path}), 74);
    EXPECT_EQ(scene.run({"export", "--geojson", "/none"}), 74);
    EXPECT_EQ(scene.run({"export", scene.file}), 64) << "no format";
    EXPECT_EQ(scene.run({"export", "--csv", "--json", scene.file}), 64);
}
