// Assistance from server to chip: the real daemon, a real HTTP server, and the chip's own verdict. Hours and
// days pass by putting the board's clock forward.
#include "support/harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

constexpr char kDownloaded[] = "[LOCSERV] INF: [XOD]xod_download_handle_result:[";
constexpr char kNextTimer[] = "start next download timer:";
constexpr char kRetryTimer[] = "start retry timer:";
constexpr int kTypes[] = {0, 2, 3};
constexpr int kSecondsPerDay = 86400;
constexpr int kTransfersOfEmptyRead = 7; // on, ask, read the length, off, and the status after three of them

size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// A downloaded file's outcome as the log tells it.
struct Outcome {
    int type;
    int result;
};

std::vector<Outcome> outcomes(const std::string& log) {
    std::vector<Outcome> list;
    const std::string begin = kDownloaded;
    for (size_t at = log.find(begin); at != std::string::npos; at = log.find(begin, at + 1)) {
        Outcome outcome = {-1, -1};
        if (sscanf(log.c_str() + at + begin.size(), "%d,%*d] %d\n", &outcome.type, &outcome.result) == 2) {
            list.push_back(outcome);
        }
    }
    return list;
}

// A board whose chip sends nothing by itself, the daemon on it, and a client.
struct Assistance {
    explicit Assistance(const Arguments& options = {"--source", "none"})
        : board(options), daemon(board), client(board.socket_path()) {}

    json status() const {
        return json::parse(board.ctl({"status", "--json"}));
    }
    void advance(int64_t seconds) const {
        board.ctl({"time", "--advance", std::to_string(seconds)});
    }
    void start_assistance() const {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST), 0);
    }
    // The last number after a text in the log; -1: there is none.
    int64_t last_number(const std::string& text) const {
        const std::string log = daemon.log();
        const size_t at = log.rfind(text);
        return at == std::string::npos ? -1 : strtoll(log.c_str() + at + text.size(), nullptr, 10);
    }
    bool wait_outcomes(size_t count) const {
        return wait_until([&] { return outcomes(daemon.log()).size() >= count; });
    }
    // The chip's acknowledgements fill the client's queue: what it does not read would crowd out a reply.
    void read_along() const {
        while (client.receive(std::chrono::milliseconds(0))) {
        }
    }
    // Lets the first three files come, which a start without any leads to.
    void load_files() const {
        start_assistance();
        for (size_t file = 1; file <= std::size(kTypes); ++file) {
            ASSERT_TRUE(daemon.wait_log(kNextTimer));
            advance(3);
            ASSERT_TRUE(wait_outcomes(file)) << daemon.log();
            ASSERT_TRUE(wait_until([&] { return count_of(daemon.log(), kNextTimer) > file; }));
        }
    }

    SimulatedBoard board;
    DaemonOnBoard daemon;
    TestClient client;
};

} // namespace

TEST(Orbits, AllEnabledFilesComeAndTheChipFindsEveryRecordIntact) {
    const Assistance scene({"--source", "none", "--aiding"});
    scene.load_files();
    const std::vector<Outcome> list = outcomes(scene.daemon.log());
    ASSERT_EQ(list.size(), 3U);
    for (size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].type, kTypes[i]);
        EXPECT_EQ(list[i].result, 0);
        EXPECT_EQ(scene.client.receive_code(TAVOR_CODE_ASSIST_RESULT)->value, 0U);
    }
    const json assist = scene.status()["assist"];
    for (const char* counter : {"gps_glonass", "beidou", "galileo", "refused"}) {
        EXPECT_EQ(assist[counter], counter == std::string("refused") ? 0 : 1) << counter;
    }
    EXPECT_EQ(assist["last_url"], "/XOD_GAL_3.DAT?vendor=tavor&project=board&device_id=0001");
    ASSERT_EQ(scene.client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    const auto good = [&](const json& status, const char* constellation) {
        return status["aiding_orbits"][constellation]["verdict"] == "good";
    };
    json status;
    EXPECT_TRUE(wait_until([&] {
        status = scene.status();
        return good(status, "gps") && good(status, "glonass") && good(status, "galileo") &&
               good(status, "beidou");
    })) << status;
    EXPECT_EQ(status["aiding_time"]["verdict"], "good");
    EXPECT_EQ(status["assisted"], true);
    EXPECT_EQ(status["orbits_stray"], 0);
    const std::string commands = scene.board.ctl({"commands"});
    EXPECT_EQ(count_of(commands, "$PZUL471,0,"), 32U);
    EXPECT_EQ(count_of(commands, "$PZUL471,1,"), 24U);
    EXPECT_EQ(count_of(commands, "$PZUL471,2,FE,"), 1U);
    EXPECT_EQ(count_of(commands, "$PZUL471,3,FF,"), 1U);
    EXPECT_EQ(count_of(commands, "(bad)"), 0U);
}

// Without a server that answers: the good files are kept, and lost with the first refresh otherwise.
TEST(Orbits, SegmentsFollowTheClockForThreeDays) {
    constexpr int kParts = 6;
    constexpr int kStepHours = 13; // the last part is asked for 65 hours after the first
    const Assistance scene({"--source", "none", "--aiding", "--time", "2027-02-27T17:59:00Z"});
    scene.board.configure("keep good files", "1");
    scene.load_files();
    scene.board.fault("assist-not-found", "on");
    for (int part = 0; part < kParts; ++part) {
        ASSERT_EQ(scene.client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        const auto good = [&] {
            scene.read_along();
            const json orbits = scene.status()["aiding_orbits"];
            return std::all_of(orbits.begin(), orbits.end(),
                               [&](const json& orbit) { return orbit["good"] == part + 1; });
        };
        EXPECT_TRUE(wait_until(good)) << part << scene.status()["aiding_orbits"];
        scene.read_along();
        ASSERT_EQ(scene.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
        scene.advance(kStepHours * 3600);
    }
    EXPECT_GE(outcomes(scene.daemon.log()).size(), 4U) << "no refresh has failed";
}

TEST(Orbits, AFortnightKeepsEveryFileFresh) {
    const Assistance scene;
    scene.load_files();
    int64_t passed_s = 0;
    std::map<int, int> refreshed;
    for (size_t known = 3; passed_s < 14 * kSecondsPerDay; known = outcomes(scene.daemon.log()).size()) {
        const size_t timers = count_of(scene.daemon.log(), kNextTimer);
        const int64_t delay_ms = scene.last_number("XOD]valid:") >= 0 ? scene.last_number(kNextTimer) : -1;
        // A delay that no timer takes is replaced by an hour.
        const bool fits = delay_ms >= 0 && delay_ms <= INT32_MAX;
        const int64_t step_s = fits ? delay_ms / 1000 + 1 : 3600;
        scene.advance(step_s);
        passed_s += step_s;
        ASSERT_TRUE(scene.wait_outcomes(known + 1)) << "the refresh has died after " << passed_s << " s";
        ASSERT_TRUE(wait_until([&] { return count_of(scene.daemon.log(), kNextTimer) > timers; }));
        EXPECT_EQ(outcomes(scene.daemon.log()).back().result, 0);
        ++refreshed[outcomes(scene.daemon.log()).back().type];
        EXPECT_GT(scene.last_number("XOD]valid:"), 0) << "a file has run out after " << passed_s << " s";
        ASSERT_LT(known, 400U) << "the refresh turns too fast";
    }
    for (const int type : kTypes) {
        EXPECT_GE(refreshed[type], 4) << type;
    }
}

TEST(Orbits, AStalledServerHoldsUpNoStopAndIsGivenUp) {
    const Assistance scene({"--source", "none", "--aiding", "--fault", "assist-stall=on"});
    ASSERT_EQ(scene.client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    scene.start_assistance();
    ASSERT_TRUE(scene.daemon.wait_log(kNextTimer));
    scene.advance(3);
    ASSERT_TRUE(wait_until([&] { return scene.status()["assist"]["gps_glonass"] == 1; }));
    scene.advance(6); // the chip asks again
    ASSERT_TRUE(wait_until([&] {
        const std::string log = scene.daemon.log();
        return count_of(log, "$PZUL010,0,") > count_of(log, "without XOD file");
    })) << "a request waits for the transfer";
    EXPECT_EQ(scene.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0) << "while the transfer hangs";
    EXPECT_TRUE(scene.daemon.wait_log("[LOCSERV] WRN: [XOD] host aiding gives way to a stop\n"));
    EXPECT_TRUE(outcomes(scene.daemon.log()).empty());
    EXPECT_TRUE(wait_until([&] {
        scene.advance(30); // the transfer moves nothing for a minute
        return !outcomes(scene.daemon.log()).empty();
    }));
    EXPECT_EQ(outcomes(scene.daemon.log()).at(0).result, -1);
    EXPECT_TRUE(scene.daemon.wait_log(kRetryTimer));
}

// The library's constructor waits for a file of the test's.
TEST(Orbits, AStopIsAnsweredWhileTheHttpLibraryLoads) {
    setenv("LD_LIBRARY_PATH", TAVOR_SLOW_LIBRARY_DIR, 1);
    const Assistance scene;
    unsetenv("LD_LIBRARY_PATH");
    ASSERT_EQ(scene.client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    // The interposer looks a function up at its first use, which waits while a library is loaded: the receive
    // thread must have slept before that, as it has when it reads again.
    ASSERT_TRUE(wait_until([&] { return scene.status().at("transfers") > kTransfersOfEmptyRead; }));
    scene.start_assistance();
    ASSERT_TRUE(scene.daemon.wait_log(kNextTimer));
    scene.advance(3);
    ASSERT_TRUE(wait_until(
        [&] { return std::filesystem::exists(scene.board.directory.path / "etc/default/tavor/loading"); }));
    EXPECT_EQ(scene.client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    EXPECT_TRUE(outcomes(scene.daemon.log()).empty());
    scene.board.directory.write("etc/default/tavor/go_on", "");
    EXPECT_TRUE(scene.daemon.wait_log("[LOCSERV] ERR: [XOD]xod_curl, libcurl.so.4 has no curl_easy_init\n"));
    EXPECT_TRUE(scene.daemon.wait_log(kRetryTimer));
}
