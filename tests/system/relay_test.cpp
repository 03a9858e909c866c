// The relay between the daemon on a board and clients: the client tool, and programs that nobody here wrote.
#include "support/harness.h"
#include "support/tcp_peer.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool is_installed(const std::string& program) {
    return run_program({"/bin/sh", "-c", "command -v " + program}).status == 0;
}

struct RelaySystem : testing::Test {
    void start(const Arguments& options = {}) {
        Arguments arguments = {TAVOR_RELAY_PROGRAM, "--daemon", board.socket_path(),
                               "--socket",          socket,     "--listen",
                               std::to_string(port)};
        arguments.insert(arguments.end(), options.begin(), options.end());
        relay = std::make_unique<Child>(arguments, log_path);
        ASSERT_TRUE(wait_until([&] { return std::filesystem::is_socket(socket); }));
    }
    std::string log() const {
        return board.directory.read("relay.log");
    }
    bool wait_log(const std::string& text) const {
        return wait_until([&] { return log().find(text) != std::string::npos; });
    }
    RunResult ctl(Arguments arguments) const {
        arguments.insert(arguments.begin(), {TAVOR_CTL_PROGRAM, "--socket", socket});
        return run_program(arguments);
    }
    std::string power() const {
        return board.ctl({"power"});
    }

    SimulatedBoard board{{"--rate", "5"}};
    DaemonOnBoard daemon{board};
    std::string socket = (board.directory.path / "relay.sock").string();
    std::string log_path = (board.directory.path / "relay.log").string();
    int port = free_tcp_port();
    std::unique_ptr<Child> relay;
};

TEST_F(RelaySystem, TheClientToolWorksAsWithTheDaemon) {
    start();
    EXPECT_EQ(ctl({"start"}).out, "positioning started\n");
    EXPECT_NE(ctl({"watch", "--count", "12"}).out.find("position: "), std::string::npos);
    EXPECT_EQ(ctl({"position", "--json"}).status, 0);
    EXPECT_EQ(ctl({"save"}).out.rfind("location saved\nposition: ", 0), 0U);
    EXPECT_EQ(ctl({"debug", "file"}).status, 0);
    EXPECT_EQ(ctl({"debug", "off"}).status, 0);
    if (geteuid() == 0) {
        EXPECT_EQ(ctl({"send", "353,1,1"}).out, "$PZUL001,353,0*27\n");
        EXPECT_EQ(ctl({"stop"}).out, "positioning stopped\n");
        EXPECT_EQ(power(), "off\n");
    }
    EXPECT_EQ(relay->end(SIGTERM), 0);
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_F(RelaySystem, ARestartedDaemonIsNoticedWithinTwoSecondsAndPositioningGoesOn) {
    start();
    TestClient watcher(socket);
    ASSERT_EQ(watcher.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    ASSERT_TRUE(watcher.receive_code(TAVOR_CODE_POSITION));
    const size_t before = daemon.log().size();
    daemon.restart();
    const auto began = std::chrono::steady_clock::now();
    ASSERT_TRUE(
        wait_until([&] { return daemon.log().find("location_service_start", before) != std::string::npos; }));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
    while (watcher.receive(std::chrono::milliseconds(0))) { // what came before
    }
    EXPECT_TRUE(watcher.receive_code(TAVOR_CODE_POSITION));
}

TEST_F(RelaySystem, AStopIsAnsweredSoonWhileACommandHangs) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    start();
    const TestClient commander(socket);
    ASSERT_EQ(commander.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    board.fault("silence", "on");
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(commander.send(TAVOR_REQUEST_COMMAND, "353,1"));
    }
    const TestClient stopper(socket);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(stopper.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(3));
    EXPECT_EQ(power(), "off\n");
}

TEST_F(RelaySystem, OnDemandTheChipIsOnWhileSomebodyWatches) {
    start({"--positioning", "demand", "--stop-delay", "0.2"});
    ASSERT_TRUE(wait_log("the daemon is there"));
    EXPECT_EQ(power(), "off\n");
    {
        TcpPeer watcher(port);
        ASSERT_TRUE(watcher.send("?WATCH={\"enable\":true,\"json\":true};\n"));
        ASSERT_TRUE(wait_until([&] {
            watcher.read();
            return watcher.got.find("\"TPV\"") != std::string::npos;
        }));
        EXPECT_EQ(power(), "on\n");
    }
    EXPECT_TRUE(wait_until([&] { return power() == "off\n"; }));
}

TEST_F(RelaySystem, OnDemandTheChipIsOffSoonWhenARelayWasKilledAndNobodyComesBack) {
    start({"--positioning", "demand", "--stop-delay", "0.2"});
    {
        TestClient watcher(socket);
        ASSERT_EQ(watcher.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        EXPECT_EQ(power(), "on\n");
        relay->end(SIGKILL);
    }
    EXPECT_EQ(power(), "on\n");
    start({"--positioning", "demand", "--stop-delay", "0.2"});
    EXPECT_TRUE(wait_until([&] { return power() == "off\n"; }));
}

TEST_F(RelaySystem, ASecondRelayIsRefused) {
    start();
    const RunResult second = run_program({TAVOR_RELAY_PROGRAM, "--daemon", board.socket_path(), "--socket",
                                          socket, "--listen", std::to_string(free_tcp_port())});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("can't serve local clients at " + socket), std::string::npos);
    const RunResult port_taken =
        run_program({TAVOR_RELAY_PROGRAM, "--socket", socket + "2", "--listen", std::to_string(port)});
    EXPECT_EQ(port_taken.status, 1);
    EXPECT_EQ(ctl({"start"}).status, 0);
}

TEST_F(RelaySystem, ASocketThatAKilledOneLeftIsReplaced) {
    start();
    relay->end(SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(socket));
    start();
    ASSERT_TRUE(wait_log("the daemon is there"));
    EXPECT_EQ(ctl({"start"}).status, 0);
}

TEST_F(RelaySystem, TheSupervisorHearsThatItIsReadyAndThatItLives) {
    const std::string path = (board.directory.path / "notify").string();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "200000", 1);
    start();
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    std::string heard;
    EXPECT_TRUE(wait_until([&] {
        char text[64] = {};
        const ssize_t size = recv(fd, text, sizeof text, 0);
        heard += size > 0 ? std::string(text, static_cast<size_t>(size)) + " " : "";
        return heard.starts_with("READY=1 WATCHDOG=1 WATCHDOG=1 ");
    })) << heard;
    close(fd);
}

TEST_F(RelaySystem, GpspipeReadsSentencesAndReports) {
    if (!is_installed("gpspipe")) {
        GTEST_SKIP() << "gpspipe is missing";
    }
    start();
    const std::string place = "127.0.0.1:" + std::to_string(port);
    EXPECT_NE(run_program({"gpspipe", "-r", "-n", "12", place}).out.find("$GNGGA,"), std::string::npos);
    const std::string reports =
        run_program({"gpspipe", "-w", "-n", "30", place}).out; // a SKY comes once a second
    EXPECT_NE(reports.find("\"class\":\"TPV\""), std::string::npos);
    EXPECT_NE(reports.find("\"class\":\"SKY\""), std::string::npos) << reports;
}

// A program on a terminal of tmux, with a server of its own.
struct Screen {
    Screen(std::string path, const std::string& command) : socket(std::move(path)) {
        run({"new-session", "-d", "-x", "100", "-y", "40", "TERM=screen " + command + "; cat"});
    }
    ~Screen() {
        run({"kill-server"});
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    std::string run(Arguments arguments) const {
        arguments.insert(arguments.begin(), {"tmux", "-S", socket, "-f", "/dev/null"});
        return run_program(arguments).out;
    }
    bool shows(const std::string& text) const {
        return wait_until([&] { return run({"capture-pane", "-p"}).find(text) != std::string::npos; });
    }

    const std::string socket;
};

TEST_F(RelaySystem, CgpsShowsTheFixAndTheSky) {
    if (!is_installed("cgps") || !is_installed("tmux")) {
        GTEST_SKIP() << "cgps or tmux is missing";
    }
    start();
    const Screen screen((board.directory.path / "tmux").string(), "cgps 127.0.0.1:" + std::to_string(port));
    EXPECT_TRUE(screen.shows(" 3D FIX ")) << screen.run({"capture-pane", "-p"});
    EXPECT_TRUE(screen.shows("Latitude:         43."));
    EXPECT_TRUE(screen.shows("Seen 28/Used 20"));
}

TEST_F(RelaySystem, GpsmonShowsThePositionAndTheSentences) {
    if (!is_installed("gpsmon") || !is_installed("tmux")) {
        GTEST_SKIP() << "gpsmon or tmux is missing";
    }
    start();
    const Screen screen((board.directory.path / "tmux").string(), "gpsmon 127.0.0.1:" + std::to_string(port));
    EXPECT_TRUE(screen.shows("Lat: 43 1")) << screen.run({"capture-pane", "-p"});
    EXPECT_TRUE(screen.shows("GNRMC GNGGA"));
    EXPECT_TRUE(screen.shows("$GNGGA,"));
}

TEST_F(RelaySystem, AProgramWithLibgpsGetsAFix) {
    if (std::string(TAVOR_LIBGPS_PROGRAM).empty()) {
        GTEST_SKIP() << "libgps is missing";
    }
    start();
    const RunResult result = run_program({TAVOR_LIBGPS_PROGRAM, std::to_string(port)});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_NE(result.out.find("mode 3, "), std::string::npos) << result.out; // the first epoch may be a part
}

TEST_F(RelaySystem, APythonProgramGetsAFix) {
    if (run_program({"/bin/sh", "-c", "/usr/bin/python3 -c 'import gps'"}).status != 0) {
        GTEST_SKIP() << "python3-gps is missing";
    }
    start();
    const RunResult result = run_program({"/usr/bin/python3", TAVOR_GPS_SCRIPT, std::to_string(port)});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("mode 3"), std::string::npos) << result.out;
}

// A chronyd that leaves the host's clock alone, with all its files in a directory of its own.
struct Chronyd {
    explicit Chronyd(const std::filesystem::path& place) : directory(place) {
        std::filesystem::create_directory(directory);
        std::filesystem::permissions(directory, std::filesystem::perms::owner_all); // its sockets take that
        std::ofstream(directory / "chrony.conf")
            << "refclock SOCK " << socket() << " refid GNSS poll 0 filter 1 "
            << "precision 1e-1 offset 0 delay 0.2\nport 0\ncmdport 0\n"
            << "bindcmdaddress " << command_socket() << "\npidfile " << (directory / "pid").string() << "\n";
    }
    static std::string program() {
        return run_program({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin command -v chronyd"}).out;
    }
    std::string socket() const {
        return (directory / "chrony.tavor.sock").string();
    }
    std::string command_socket() const {
        return (directory / "command.sock").string();
    }
    void start() {
        const std::string path = program();
        child = std::make_unique<Child>(Arguments{path.substr(0, path.find('\n')), "-x", "-d", "-U", "-u",
                                                  getpwuid(geteuid())->pw_name, "-f",
                                                  (directory / "chrony.conf").string()},
                                        (directory / "log").string());
    }
    // A number that chronyc tells, by its place in the report, none before there is one.
    std::optional<double> number(const std::string& report, size_t place) const {
        std::istringstream fields(run_program({"chronyc", "-h", command_socket(), "-c", report}).out);
        std::string field;
        for (size_t i = 0; i <= place; ++i) {
            if (!std::getline(fields, field, ',')) {
                return std::nullopt;
            }
        }
        return atof(field.c_str());
    }

    std::filesystem::path directory;
    std::unique_ptr<Child> child;
};

constexpr size_t kReach = 5;     // of the report "sources": a bit for each of the latest samples, octal
constexpr size_t kClockSlow = 4; // of the report "tracking": seconds

// The chip's time is three hours ahead of the host's.
TEST_F(RelaySystem, ChronydFollowsTheChipsTimeAlsoWhenItIsRestarted) {
    if (Chronyd::program().empty() || !is_installed("chronyc")) {
        GTEST_SKIP() << "chronyd (in PATH or /usr/sbin) or chronyc is missing: package chrony";
    }
    board.ctl({"time", "--advance", "10800"});
    Chronyd chronyd(board.directory.path / "chrony");
    start({"--chrony", chronyd.socket()});
    ASSERT_TRUE(wait_log("chronyd does not take the time at " + chronyd.socket()));
    for (int run = 0; run < 2; ++run) {
        chronyd.start();
        ASSERT_TRUE(wait_until([&] { return chronyd.number("sources", kReach).value_or(0) >= 7; }));
        ASSERT_TRUE(wait_until([&] { return chronyd.number("tracking", kClockSlow).value_or(0) != 0; }));
        EXPECT_NEAR(*chronyd.number("tracking", kClockSlow), 10800, 10); // of a loaded machine
        chronyd.child->end(SIGTERM);
    }
    EXPECT_NE(log().find("chronyd takes the time at " + chronyd.socket()), std::string::npos);
}

} // namespace
