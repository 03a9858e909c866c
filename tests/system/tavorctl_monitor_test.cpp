// 'tavorctl monitor' on a terminal that takes no output, against a daemon that the test plays.
#include "support/client_scene.h"
#include "support/wait.h"

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kGga[] = "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7D\r\n";
constexpr int kLimitMs = 60000;

// The two ends of a terminal; the test reads at one what the monitor writes at the other.
struct Terminal {
    Terminal() {
        EXPECT_EQ(grantpt(master) + unlockpt(master), 0);
        path = ptsname(master);
        slave = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC); // it stays a terminal without the tool
        const winsize size = {24, 80, 0, 0};
        EXPECT_EQ(ioctl(master, TIOCSWINSZ, &size), 0);
    }
    ~Terminal() {
        close(slave);
        close(master);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    std::vector<std::string> monitor(const ClientScene& scene, const std::string& kind = "vt100") const {
        return {"/bin/sh",
                "-c",
                "TERM=\"$3\" exec \"$0\" --socket \"$1\" monitor <\"$2\" >\"$2\"",
                TAVOR_CTL_PROGRAM,
                scene.daemon.path,
                path,
                kind};
    }
    std::string read_some() const {
        std::array<char, 4096> bytes = {};
        pollfd readable = {master, POLLIN, 0};
        const ssize_t size = poll(&readable, 1, kLimitMs) == 1 ? read(master, bytes.data(), bytes.size()) : 0;
        return {bytes.data(), static_cast<size_t>(size > 0 ? size : 0)};
    }
    // Ctrl-S, until the kernel says that it has stopped.
    void stop() const {
        const int on = 1;
        ASSERT_EQ(ioctl(master, TIOCPKT, &on), 0); // each piece begins with a byte that tells such things
        ASSERT_EQ(write(master, "\x13", 1), 1);
        for (std::string piece = read_some(); (piece.at(0) & TIOCPKT_STOP) == 0; piece = read_some()) {
        }
    }
    bool has_own_settings() const {
        termios settings = {};
        return tcgetattr(master, &settings) == 0 && (settings.c_lflag & ICANON) != 0;
    }

    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    int slave = -1;
    std::string path;
};

struct MonitorScreen : testing::Test {
    void SetUp() override {
        if (!TAVOR_HAS_NCURSES) {
            GTEST_SKIP() << "built without ncurses";
        }
    }
};

} // namespace

TEST_F(MonitorScreen, TerminalThatIsStoppedHoldsUpNeitherDaemonNorEnd) {
    constexpr std::chrono::seconds kFrames{1}; // five of them
    std::atomic<bool> stopped = false;
    std::atomic<bool> all_taken = false;
    ClientScene scene([&](FakeDaemon& d, const tavor_request& request) {
        d.send(make_response(request.type, 0));
        d.send(make_response(TAVOR_CODE_NMEA, 0, kGga));
        wait_until([&] { return stopped.load(); });
        const auto end = std::chrono::steady_clock::now() + kFrames;
        bool taken = true;
        while (taken && std::chrono::steady_clock::now() < end) {
            taken = d.send(make_response(TAVOR_CODE_NMEA, 0, kGga)); // waits while the queue is full
        }
        all_taken = taken;
    });
    const Terminal terminal;
    Tool tool(terminal.monitor(scene));
    std::string seen;
    ASSERT_TRUE(wait_until([&] {
        seen += terminal.read_some();
        return seen.find("latitude") != std::string::npos;
    }));
    EXPECT_FALSE(terminal.has_own_settings());
    ASSERT_NO_FATAL_FAILURE(terminal.stop());
    stopped = true;
    EXPECT_TRUE(wait_until([&] { return all_taken.load(); }));
    tool.signal(SIGTERM);
    ASSERT_TRUE(tool.wait_gone());
    EXPECT_EQ(tool.end(), 128 + SIGTERM);
    EXPECT_TRUE(terminal.has_own_settings());
}

TEST_F(MonitorScreen, TerminalThatCanNotPlaceTextIsRefused) {
    ClientScene scene(
        [](FakeDaemon& d, const tavor_request& request) { d.send(make_response(request.type, 0)); });
    const Terminal terminal;
    Tool tool(terminal.monitor(scene, "dumb"));
    ASSERT_TRUE(tool.wait_gone());
    EXPECT_EQ(tool.end(), 1);
    EXPECT_NE(tool.err.find("or take --once"), std::string::npos) << tool.err;
    EXPECT_TRUE(terminal.has_own_settings());
    EXPECT_TRUE(scene.daemon.types().empty()) << "nothing was started";
}
