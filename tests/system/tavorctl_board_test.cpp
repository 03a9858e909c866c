// The client tool with the real daemon on the simulated board.
#include "support/capture.h"
#include "support/harness.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

// A board with a daemon, and the tool for it.
struct Scene {
    explicit Scene(const Arguments& options) : board(options), daemon(board) {}

    RunResult run(const Arguments& arguments) const {
        Arguments line = {TAVOR_CTL_PROGRAM, "--socket", board.socket_path()};
        line.insert(line.end(), arguments.begin(), arguments.end());
        return run_program(line);
    }

    SimulatedBoard board;
    DaemonOnBoard daemon;
};

} // namespace

TEST(ClientOnBoard, DownloadLooksAtItsFilesBeforeTheChipIsTouched) {
    const Scene scene({"--speed", "8", "--boot-window", "60000", "--flash-size", "131072"});
    const PrivateDir& files = scene.board.directory;
    const Arguments download = {"download", "--log", files.path / "daemon.log"};
    files.write("etc/default/tavor/da/qx7710_da.bin", std::string(1025, 'a'));
    files.write("etc/default/tavor/load/flash_download.cfg",
                "- rom:\nfile: a.bin\nname: a\nbegin_address: 0x08000000\n");

    const RunResult refused = scene.run(download);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("/a.bin: No such file or directory; put it beside the image list\n"),
              std::string::npos)
        << refused.err;
    EXPECT_EQ(scene.daemon.log().find("Download start"), std::string::npos);

    files.write("etc/default/tavor/load/a.bin", std::string(0x7001, 'b'));
    EXPECT_EQ(scene.run({"download", "--check"}).status, 0);
    EXPECT_EQ(scene.run({"download", "--check", "--flash", "0x08000000+0x7000"}).status, 1);
    const RunResult written = scene.run(download);
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out.rfind("firmware written\n1 image, 28673 bytes in ", 0), 0U) << written.out;
    EXPECT_NE(written.out.find("; the flash is 0x08000000+0x20000\n"), std::string::npos) << written.out;
}

TEST(ClientOnBoard, StatusTellsWhatGoesOnWithoutTakingTheOutput) {
    const Scene scene({});
    const std::string log = scene.board.directory.path / "daemon.log";
    // As the daemon's own neighbour, so that it sees the power line.
    const auto status = [&](const std::string& from) {
        const RunResult result =
            run_program({TAVOR_BOARD_PROGRAM, "exec", "--dir", scene.board.directory.path, "--",
                         TAVOR_CTL_PROGRAM, "status", "--json", "--log", from});
        EXPECT_EQ(result.status, 0) << result.err;
        return nlohmann::json::parse(result.out);
    };
    const auto off = status(log);
    EXPECT_EQ(off.at("daemon").at("version"), TAVOR_VERSION_FOR_TEST);
    EXPECT_EQ(off.at("daemon").at("pid"), scene.daemon.process->pid);
    EXPECT_EQ(off.at("positioning"), false);
    EXPECT_EQ(off.at("power"), false);
    EXPECT_EQ(off.at("outlet"), "off");

    const TestClient receiver(scene.board.socket_path());
    EXPECT_EQ(receiver.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    EXPECT_EQ(receiver.ask(TAVOR_REQUEST_DEBUG_FILE, TAVOR_CODE_DEBUG), 0);
    ASSERT_TRUE(receiver.receive_code(TAVOR_CODE_POSITION));
    nlohmann::json on;
    EXPECT_TRUE(wait_until([&] { return (on = status(log)).at("fix").is_object(); })) << on.dump();
    EXPECT_EQ(on.at("positioning"), true);
    EXPECT_EQ(on.at("power"), true);
    EXPECT_EQ(on.at("talks"), true);
    EXPECT_EQ(on.at("outlet"), "file");
    EXPECT_EQ(on.at("fix").at("quality"), 1);
    EXPECT_EQ(on.at("download"), false);
    EXPECT_TRUE(receiver.receive_code(TAVOR_CODE_NMEA)) << "the output still goes to its receiver";
    EXPECT_EQ(scene.daemon.log().find("unkown message type"), std::string::npos);
    EXPECT_EQ(scene.run({"status"}).status, 0);

    const auto blind = status("/none/log");
    EXPECT_TRUE(blind.at("positioning").is_null()) << "a firmware download has the power on too";
    EXPECT_EQ(blind.at("unknown").at("positioning").get<std::string>().rfind("the chip has power, ", 0), 0U);
    EXPECT_TRUE(blind.at("download").is_null());

    scene.daemon.process->end(SIGKILL);
    const RunResult gone = scene.run({"status"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_NE(gone.out.find("daemon        not running\n"), std::string::npos) << gone.out;
}

TEST(ClientOnBoard, RecordingBecomesATrackThatOthersRead) {
    const Scene scene({"--rate", "10"});
    const std::string recording = scene.board.directory.path / "track.nmea";
    const RunResult recorded = scene.run({"record", "--stamps", "--duration", "3", recording});
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    const RunResult csv = scene.run({"export", "--csv", recording});
    EXPECT_EQ(csv.status, 0) << csv.err;
    EXPECT_GE(lines_of(csv.out).size(), 10U);
    const RunResult live = scene.run({"export", "--csv", "--duration", "3"});
    EXPECT_EQ(live.status, 0) << live.err;
    EXPECT_GE(lines_of(live.out).size(), 10U);

    for (const char* format : {"gpx", "kml", "geojson"}) {
        const RunResult track = scene.run({"export", std::string("--") + format, recording});
        EXPECT_EQ(track.status, 0) << track.err;
        scene.board.directory.write(std::string("track.") + format, track.out);
    }
    const std::string place = scene.board.directory.path;
    if (std::string(TAVOR_XMLLINT).empty() || std::string(TAVOR_PYTHON).empty()) {
        GTEST_SKIP() << "no xmllint or python3 to read the tracks with";
    }
    EXPECT_EQ(run_program({TAVOR_XMLLINT, "--noout", place + "/track.gpx", place + "/track.kml"}).err, "");
    const RunResult json = run_program({TAVOR_PYTHON, "-c",
                                        "import json, sys\n"
                                        "features = json.load(open(sys.argv[1]))['features']\n"
                                        "print(*{feature['geometry']['type'] for feature in features})\n",
                                        place + "/track.geojson"});
    // More than one where the recording begins between the sentences of a moment: its place has no height.
    EXPECT_EQ(json.out, "LineString\n") << json.err;
}

TEST(ClientOnBoard, CheckFindsABoardGoodAndSaysWhatIsNot) {
    const SimulatedBoard board;
    const auto check = [&] {
        return run_program(
            {TAVOR_BOARD_PROGRAM, "exec", "--dir", board.directory.path, "--", TAVOR_CTL_PROGRAM, "check"});
    };
    const auto finds = [&](const RunResult& result, const std::string& text) {
        return result.out.find(text) != std::string::npos;
    };
    // Of this machine alone are the kernel's size of a message and a service.
    const RunResult good = check();
    EXPECT_LT(good.status, 2) << good.out;
    for (const char* text :
         {"good      settings: ", "good      SPI device: /dev/spidev1.0 takes ",
          "good      power line: line 17 can be switched; now an input, low\n",
          "good      identity: ", "good      assistance host: ", "good      daemon: none runs"}) {
        EXPECT_TRUE(finds(good, text)) << text << good.out;
    }

    board.configure("Power control gpio", "9999");
    board.configure("XOD vendr", "x");
    const RunResult bad = check();
    EXPECT_EQ(bad.status, 2);
    EXPECT_TRUE(finds(bad, "bad       power line: line 9999 does not exist; correct 'Power control gpio='"))
        << bad.out;
    EXPECT_TRUE(finds(bad, "there is no setting 'XOD vendr='; the nearest is 'XOD vendor='")) << bad.out;

    const DaemonOnBoard daemon(board);
    EXPECT_TRUE(
        finds(check(), "doubtful  daemon: one runs (process " + std::to_string(daemon.process->pid) + ")"));
}

TEST(ClientOnBoard, SaveSaysWhatTheFileHoldsAfterwards) {
    const Scene scene({});
    const RunResult nothing = scene.run({"save"});
    EXPECT_EQ(nothing.status, 6);
    EXPECT_EQ(nothing.out, "");
    EXPECT_NE(nothing.err.find("nothing is known yet: " + scene.board.directory.path.string()),
              std::string::npos)
        << nothing.err;
    EXPECT_EQ(scene.run({"position"}).status, 0);
    const RunResult saved = scene.run({"save"});
    EXPECT_EQ(saved.status, 0) << saved.err;
    EXPECT_EQ(saved.out.rfind("location saved\nposition: ", 0), 0U) << saved.out;
}

TEST(ClientOnBoard, AssistTellsFilesAndCauses) {
    const Scene good({"--speed", "8"});
    const RunResult all =
        good.run({"assist", "--once", "--wait", "5", "--log", good.board.directory.path / "daemon.log"});
    EXPECT_EQ(all.status, 0) << all.err;
    for (const char* name : {"XOD_GR_3_1.DAT", "XOD_BDS_3.DAT", "XOD_GAL_3.DAT"}) {
        const auto size =
            std::filesystem::file_size(good.board.directory.path / "etc/default/tavor/xod" / name);
        const std::string line = std::string("assistance data downloaded: ") + name + ", " +
                                 std::to_string(size) + " bytes, verified\n";
        EXPECT_NE(all.out.find(line), std::string::npos) << all.out;
    }
    const Scene blank({"--speed", "8", "--conf", "XOD vendor= "});
    const RunResult bad = blank.run({"assist", "--once", "--log", blank.board.directory.path / "daemon.log"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(
        bad.err,
        "tavorctl: XOD_GR_3_1.DAT could not be downloaded: 'the transfer failed, status 3 of libcurl'; the "
        "address holds a blank: set 'XOD vendor=', 'XOD project=' and 'XOD device id='; it is tried again "
        "in 5 min\n");
}
