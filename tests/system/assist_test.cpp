// The assistance: the shipped daemon, an HTTP server of the test, and the board's clock put forward to every
// timer.
#include "support/harness.h"
#include "support/http_server.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <sstream>

namespace {

using std::string;

constexpr int64_t kGpsEpoch = 315964800; // UNIX time
constexpr int64_t kBegin = 1795255800;   // 2026-11-21 10:10 UTC, where the board's clock starts
constexpr int64_t kFailed = 0xFFFFFFFF;
constexpr int64_t kGood = 0;
const string kNext = "[LOCSERV] INF: [XOD]xod_download_handle, start next download timer:";
const string kRetry = "[LOCSERV] INF: [XOD]xod_download_handle_result,start retry timer:";
const string kRefused = "[LOCSERV] WRN: [XOD]next download timer refused, started with 3600000";

string word(uint32_t value) {
    string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

// 72 bytes; every word but the first tells where the record stands.
string record(uint32_t satellite, uint32_t hour, uint32_t segment, uint32_t number) {
    string bytes = word(satellite << 24 | hour);
    for (uint32_t i = 1; i < 18; ++i) {
        bytes += word(segment << 16 | number << 8 | i);
    }
    return bytes;
}

string mixed_file(uint32_t start) {
    string bytes;
    for (uint32_t segment = 0; segment < 12; ++segment) {
        for (uint32_t i = 0; i < 56; ++i) {
            bytes += record(i < 32 ? i + 1 : i + 33, start + segment * 6, segment, i);
        }
    }
    return bytes;
}

// Two satellites behind a header.
string headed_file(uint32_t start, uint32_t header, uint32_t first) {
    string bytes = word(header << 24) + word(3) + string(64, '\0');
    for (uint32_t segment = 0; segment < 12; ++segment) {
        bytes += record(first, start + segment * 6, segment, 0) +
                 record(first + 1, start + segment * 6, segment, 1);
    }
    return bytes;
}

// The test's own way to a sum: the system's tool.
string md5_of(const string& content, const PrivateDir& directory) {
    const RunResult sum = run_program({"/usr/bin/md5sum", directory.write("sum", content)});
    return sum.out.substr(0, 32);
}

// Result of the next download, -2 when there was none.
int64_t result_of(const TestClient& client) {
    const auto response = client.receive_code(TAVOR_CODE_ASSIST_RESULT);
    return response ? int64_t{response->value} : -2;
}

// What stands behind the beginning of the line that has so many like it before.
string line_value(const string& log, const string& begin, size_t number) {
    size_t at = log.find(begin);
    for (size_t i = 0; i < number && at != string::npos; ++i) {
        at = log.find(begin, at + 1);
    }
    if (at == string::npos) {
        return "";
    }
    const size_t value = at + begin.size();
    const size_t end = log.find('\n', value);
    return end == string::npos ? "" : log.substr(value, end - value);
}

struct Assistance : testing::Test {
    Assistance() : server([this](int connection, const string& request) { answer(connection, request); }) {
        board.configure("XOD file path", files.path);
        board.configure("XOD host", server.address());
        board.configure("XOD vendor", "v");
        board.configure("XOD project", "p");
        board.configure("XOD device id", "d");
    }
    ~Assistance() override {
        stalls = false;
    }

    void answer(int connection, const string& request) {
        const string name = request.substr(5, request.find('?') - 5);
        {
            const std::lock_guard<std::mutex> guard(lock);
            ++requests[name];
        }
        if (stalls) {
            http_wait_for_end(connection);
            return;
        }
        if (fails) {
            http_send(connection, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            return;
        }
        const string content = content_of(name);
        const string sum = md5_of(content, files);
        http_send(connection, "HTTP/1.1 200 OK\r\nETag: \"" + sum + "\"\r\nContent-Length: " +
                                  std::to_string(content.size()) + "\r\nConnection: close\r\n\r\n" + content);
    }
    string content_of(const string& name) const {
        const auto start = static_cast<uint32_t>(gps_hour() / 6 * 6);
        return name == "XOD_GR_3_1.DAT"  ? mixed_file(start)
               : name == "XOD_BDS_3.DAT" ? headed_file(start, 255, 201)
                                         : headed_file(start, 254, 101);
    }
    int requests_of(const string& name) {
        const std::lock_guard<std::mutex> guard(lock);
        return requests[name];
    }

    int64_t gps_hour() const {
        const auto passed =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begun);
        return (kBegin + advanced + passed.count() - kGpsEpoch) / 3600;
    }
    void advance(int64_t seconds) {
        advanced += seconds;
        board.ctl({"time", "--advance", std::to_string(seconds)});
    }
    // Hours left in a file of the directory, whose start hour stands at the offset.
    int64_t hours_left(const string& name, size_t offset) const {
        const string bytes = files.read(name).substr(offset, 3);
        int64_t start = 0;
        for (size_t i = bytes.size(); i-- > 0;) {
            start = start * 256 + static_cast<uint8_t>(bytes[i]);
        }
        return start + 72 - gps_hour();
    }
    int64_t least_hours_left() const {
        return std::min({hours_left("XOD_GR_3_1.DAT", 0), hours_left("XOD_BDS_3.DAT", 72),
                         hours_left("XOD_GAL_3.DAT", 72)});
    }
    // Puts the clock forward until the stalled transfer is given up, and returns its result. The stall counts
    // from when the daemon has noticed it, which may be behind the first step.
    int64_t end_stall(const TestClient& client) {
        constexpr int kSteps = 20;
        for (int i = 0; i < kSteps; ++i) {
            advance(61);
            const auto response = client.receive_code(TAVOR_CODE_ASSIST_RESULT, std::chrono::seconds(3));
            if (response) {
                return response->value;
            }
        }
        return -2;
    }
    // Starts the assistance and puts the clock forward to its first download.
    void start(const TestClient& client) {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST), 0);
        advance(3);
    }

    PrivateDir files;
    std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
    SimulatedBoard board{{"--time", "2026-11-21T10:10:00Z"}};
    std::atomic<int64_t> advanced = 0; // seconds
    std::atomic<bool> fails = false;
    std::atomic<bool> stalls = false;
    std::mutex lock;
    std::map<string, int> requests; // by file
    HttpServer server;
};

} // namespace

TEST_F(Assistance, StaysFreshForAFortnight) {
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    start(client);
    int64_t least = 72;
    for (size_t cycle = 0; advanced < 14 * 24 * 3600; ++cycle) {
        ASSERT_EQ(result_of(client), kGood);
        string delay;
        ASSERT_TRUE(wait_until([&] {
            delay = line_value(daemon.log(), kNext, cycle);
            return !delay.empty();
        }));
        const int64_t ms = std::stoll(delay);
        if (ms < 0) {
            ASSERT_TRUE(daemon.wait_log(kNext + delay + "\n" + kRefused));
        }
        const int64_t seconds = ms < 0 ? 3600 : ms / 1000 + 1;
        if (cycle >= 2) { // all are there; as they will stand just before the next download
            least = std::min(least, least_hours_left() - (seconds + 3599) / 3600);
        }
        advance(seconds);
    }
    EXPECT_GE(least, 12);
    EXPECT_NE(daemon.log().find(kRefused), string::npos) << "a delay that no timer takes did not come up";
    for (const char* name : {"XOD_GR_3_1.DAT", "XOD_BDS_3.DAT", "XOD_GAL_3.DAT"}) {
        EXPECT_GE(requests_of(name), 5) << name;
    }
}

TEST_F(Assistance, FailingFileIsTriedFiveTimesAndDropped) {
    fails = true;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    start(client);
    for (const int seconds : {300, 600, 1200, 2400}) {
        ASSERT_EQ(result_of(client), kFailed);
        ASSERT_TRUE(daemon.wait_log(kRetry + std::to_string(seconds * 1000) + "\n"));
        advance(seconds + 1);
    }
    ASSERT_EQ(result_of(client), kFailed);
    ASSERT_TRUE(daemon.wait_log(kNext + "3000\n"));
    EXPECT_EQ(requests_of("XOD_GR_3_1.DAT"), 5);
    fails = false;
    advance(3);
    EXPECT_EQ(result_of(client), kGood);
}

TEST_F(Assistance, OrbitDataReachesTheChipAsTheServerHasIt) {
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    start(client);
    ASSERT_EQ(result_of(client), kGood);
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    const int64_t hour = gps_hour() / 6 * 6 + 7; // in the second segment
    const string when = std::to_string(hour / 168) + "," + std::to_string(hour % 168 * 3600);
    board.ctl({"send", "PZUL010,0,1," + when});
    ASSERT_TRUE(daemon.wait_log("[LOCSERV] INF: [XOD] host aiding xod finish:1\n"));
    char last[32];
    snprintf(last, sizeof last, "$PZUL471,1,18,58%06X,13701,", static_cast<unsigned>(hour / 6 * 6));
    EXPECT_TRUE(wait_until([&] { return board.ctl({"commands"}).find(last) != string::npos; })) << last;
}

TEST_F(Assistance, StopIsAnsweredWhileAidingWaitsForAStalledTransfer) {
    stalls = true;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    start(client);
    ASSERT_TRUE(wait_until([&] { return requests_of("XOD_GR_3_1.DAT") == 1; }));
    board.ctl({"send", "PZUL010,0,0,2391,7200"});
    ASSERT_TRUE(daemon.wait_log("PZUL010,0,0,2391,7200"));
    // The sentences that have waited come in a burst, which can crowd out a reply: ask again then.
    EXPECT_TRUE(wait_until(
        [&] { return client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, "", std::chrono::seconds(2)) == 0; }));
    EXPECT_NE(daemon.log().find("[LOCSERV] WRN: [XOD] host aiding gives way to a stop\n"), string::npos);
    EXPECT_EQ(daemon.log().find("xod_download_http download fail"), string::npos) << "the transfer has ended";
    EXPECT_EQ(end_stall(client), kFailed);
}

TEST_F(Assistance, SecondRequestDuringATransferIsServedAndLeavesNothingBehind) {
    stalls = true;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    start(client);
    ASSERT_TRUE(wait_until([&] { return requests_of("XOD_GR_3_1.DAT") == 1; }));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST), 0);
    }
    EXPECT_NE(daemon.log().find("xod_download_init, already init"), string::npos);
    stalls = false;
    EXPECT_EQ(end_stall(client), kFailed);
    EXPECT_EQ(result_of(client), kGood);
}
