// All of the client tool through the relay: at its usual place, which a namespace of its own gives, and at
// another one that the tool is told.
#include "support/harness.h"
#include "support/nobody.h"
#include "support/tcp_peer.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using Json = nlohmann::json;

constexpr char kUsualSocket[] = "/run/tavor/relay.sock";

// Whether this process has a /run/tavor of its own, and the board's directory as that of the daemon.
bool enter_usual_place(const std::filesystem::path& board) {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/run", "tmpfs", 0, nullptr) == 0 &&
           mount("none", "/etc/default", "tmpfs", 0, nullptr) == 0 &&
           mkdir("/etc/default/tavor", 0755) == 0 &&
           mount((board / "etc/default/tavor").c_str(), "/etc/default/tavor", nullptr, MS_BIND, nullptr) == 0;
}

struct RelayTool : testing::Test {
    void start_at_another_place() {
        socket = (board.directory.path / "relay.sock").string();
        tool = {TAVOR_CTL_PROGRAM, "--socket", socket};
        start({"--daemon", board.socket_path(), "--socket", socket});
    }
    void start(Arguments options) {
        // Everybody may ask, so that somebody without the right can.
        options.insert(options.begin(), {"/bin/sh", "-c", "umask 0; exec \"$0\" \"$@\"", TAVOR_RELAY_PROGRAM,
                                         "--listen", "", "--config", config()});
        relay = std::make_unique<Child>(options, log_path);
        ASSERT_TRUE(wait_until([&] {
            return board.directory.read("relay.log").find("the daemon is there") != std::string::npos;
        }));
    }
    std::string config() const {
        return board.directory.write("relay.conf", "positioning=demand\nstop-delay=0\n");
    }
    RunResult ctl(const Arguments& arguments) const {
        Arguments line = tool;
        line.insert(line.end(), arguments.begin(), arguments.end());
        return run_program(line);
    }
    Json status() const {
        const RunResult result = ctl({"status", "--json", "--log", daemon_log()});
        EXPECT_EQ(result.status, 0) << result.err;
        return Json::parse(result.out);
    }
    std::string daemon_log() const {
        return (board.directory.path / "daemon.log").string();
    }
    void expect(const Arguments& arguments, const std::string& text) const {
        const RunResult result = ctl(arguments);
        EXPECT_EQ(result.status, 0) << arguments[0] << ": " << result.err;
        EXPECT_NE(result.out.find(text), std::string::npos) << arguments[0] << ": " << result.out;
    }
    void write_images() const {
        board.directory.write("etc/default/tavor/da/qx7710_da.bin", std::string(1025, 'a'));
        board.directory.write("etc/default/tavor/load/flash_download.cfg",
                              "- rom:\nfile: a.bin\nname: a\nbegin_address: 0x08000000\n");
        board.directory.write("etc/default/tavor/load/a.bin", std::string(0x7001, 'b'));
    }

    void expect_positions() const;
    void expect_requests() const;
    void expect_state() const;
    void expect_download() const;
    void expect_all() const {
        expect_positions();
        expect_requests();
        expect_state();
        expect_download();
    }

    SimulatedBoard board{{"--speed", "8", "--rate", "5", "--boot-window", "60000", "--flash-size", "131072"}};
    DaemonOnBoard daemon{board};
    std::string socket = kUsualSocket;
    Arguments tool = {TAVOR_CTL_PROGRAM};
    std::string log_path = (board.directory.path / "relay.log").string();
    std::unique_ptr<Child> relay;
};

void RelayTool::expect_positions() const {
    expect({"start"}, "positioning started\n");
    expect({"start", "--wait"}, "");
    expect({"start", "--fix"}, "");
    expect({"position", "--json"}, "\"latitude\"");
    expect({"watch", "--count", "12"}, "position: ");
    expect({"record", "--duration", "1", "-"}, "$GNGGA,");
    expect({"export", "--csv", "--duration", "2"}, ",43.2");
    expect({"monitor", "--once"}, " latitude   43.29");
}

void RelayTool::expect_requests() const {
    const std::string place = board.directory.path.string();
    expect({"save"}, "location saved\nposition: ");
    expect({"debug", "file"}, "");
    expect({"debug", "off"}, "");
    expect({"start"}, "positioning started\n");
    expect({"assist", "--once", "--wait", "10", "--log", daemon_log()}, "XOD_GAL_3.DAT, ");
}

void RelayTool::expect_state() const {
    const RunResult check = ctl({"check"});
    EXPECT_LE(check.status, 2) << check.err; // of this machine alone are devices and service
    EXPECT_NE(check.out.find("good      settings: "), std::string::npos) << check.out;
    const Json state = status();
    EXPECT_EQ(state.at("daemon").at("running"), true) << state.dump();
    EXPECT_EQ(state.at("relay").at("socket"), socket) << state.dump();
    EXPECT_EQ(state.at("relay").at("answers"), true) << state.dump();
    EXPECT_EQ(state.at("location").at("position"), true) << state.dump();
}

void RelayTool::expect_download() const {
    write_images();
    expect({"download", "--check"}, "a.bin");
    expect({"download", "--log", daemon_log()}, "firmware written\n1 image, 28673 bytes in ");
    expect({"stop"}, "positioning stopped\n");
    EXPECT_TRUE(wait_until([&] { return board.ctl({"power"}) == "off\n"; }));
}

TEST_F(RelayTool, DoesAllAtAnotherPlace) {
    start_at_another_place();
    expect_all();
}

TEST_F(RelayTool, DoesAllAtTheUsualPlaceWithoutBeingTold) {
    if (!enter_usual_place(board.directory.path)) {
        GTEST_SKIP() << "needs the right to a mount namespace of its own";
    }
    start({});
    expect_all();
}

TEST_F(RelayTool, StatusLooksAtTheDaemonThatTheRelayTells) {
    if (!enter_usual_place(board.directory.path)) {
        GTEST_SKIP() << "needs the right to a mount namespace of its own";
    }
    start({"--daemon", board.socket_path()});
    EXPECT_EQ(status().at("socket"), board.socket_path());
}

// The answer to a command takes the chip's answer along only while positioning is on for somebody.
TEST_F(RelayTool, SendsCommandsWhilePositioningIsOn) {
    start_at_another_place();
    const TestClient consumer(socket);
    ASSERT_EQ(consumer.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    ASSERT_TRUE(consumer.receive_code(TAVOR_CODE_POSITION)); // the link to the chip is open
    expect({"send", "353,1,1", "--wait", "2"}, "$PZUL001,353,0*27\n");
}

TEST_F(RelayTool, StatusTellsWhatTheRelayKnows) {
    start_at_another_place();
    const Json off = status();
    EXPECT_EQ(off.at("positioning"), false);
    EXPECT_EQ(off.at("relay").at("consumers").at("local"), 0);
    const TestClient consumer(socket);
    ASSERT_EQ(consumer.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    Json on;
    EXPECT_TRUE(wait_until([&] {
        on = status();
        return on.at("fix").is_object() && on.at("fix").at("satellites").is_number();
    })) << on.dump();
    EXPECT_EQ(on.at("positioning"), true);
    EXPECT_EQ(on.at("talks"), true);
    EXPECT_EQ(on.at("fix").at("quality"), 1);
    EXPECT_GT(on.at("fix").at("satellites"), 3);
    EXPECT_LT(on.at("fix").at("age"), 5);
    EXPECT_EQ(on.at("relay").at("consumers").at("local"), 1);
    EXPECT_EQ(on.at("relay").at("daemonRestarts"), 0);
    daemon.restart();
    EXPECT_TRUE(wait_until([&] { return status().at("relay").at("daemonRestarts") == 1; }));
    expect({"status"}, "relay         answers, version ");
}

TEST_F(RelayTool, StatusAnswersInTwoSecondsBesideARelayThatHangs) {
    start_at_another_place();
    kill(relay->pid, SIGSTOP);
    const auto begun = std::chrono::steady_clock::now();
    const RunResult result = ctl({"status"});
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
    const RunResult check = ctl({"check"});
    kill(relay->pid, SIGCONT);
    EXPECT_EQ(result.status, 3) << result.err;
    for (const char* row : {"relay         silent: it does not answer within 0.4 s",
                            "daemon        unknown: a relay holds the socket",
                            "assistance    unknown: a relay holds the socket"}) {
        EXPECT_NE(result.out.find(row), std::string::npos) << result.out;
    }
    EXPECT_NE(check.out.find("doubtful  daemon: whether one runs can't be told: a relay holds the socket"),
              std::string::npos)
        << check.out;
    EXPECT_EQ(check.out.find("settings"), std::string::npos) << "whose are not known: " << check.out;
}

TEST_F(RelayTool, WithoutTheRightItSaysWhatToDo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a user without the right";
    }
    start_at_another_place();
    write_images();
    chmod(board.directory.path.c_str(), 0755);
    // Nobody may not be let into the folder of the build.
    const auto copy = board.directory.path / "tavorctl";
    std::filesystem::copy_file(tool[0], copy);
    tool[0] = copy;
    as_nobody([&] {
        for (const Arguments& line : {Arguments{"download", "--force", "--log", daemon_log()},
                                      Arguments{"send", "353,1,1"}, Arguments{"debug", "file"}}) {
            const RunResult refused = ctl(line);
            EXPECT_EQ(refused.status, 1) << line[0];
            EXPECT_NE(refused.err.find("through the relay it takes root or group tavor-admin"),
                      std::string::npos)
                << line[0] << ": " << refused.err;
        }
    });
}

TEST_F(RelayTool, ADaemonThatEndsInMidDownloadIsNamed) {
    start_at_another_place();
    write_images();
    board.fault("silence", "on"); // the download goes on and on
    std::thread killer([&] {
        daemon.wait_log("Download start");
        daemon.kill();
    });
    const RunResult result = ctl({"download", "--log", daemon_log()});
    killer.join();
    EXPECT_EQ(result.status, 3) << result.err;
    EXPECT_NE(result.err.find("the daemon at " + board.socket_path() + " ended in mid-download; start it"),
              std::string::npos)
        << result.err;
}

// A loop that hangs: the reader of its output has stopped reading, and a line goes nowhere.
TEST_F(RelayTool, TheSupervisorHearsNothingOfALoopThatHangs) {
    const std::string path = (board.directory.path / "notify").string();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int told = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(told, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const std::string fifo = (board.directory.path / "output").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int output = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    const auto hears = [&] {
        char text[64] = {};
        bool watchdog = false;
        for (ssize_t size = 0; (size = recv(told, text, sizeof text, 0)) > 0;) {
            watchdog = watchdog || std::string_view(text, static_cast<size_t>(size)) == "WATCHDOG=1";
        }
        return watchdog;
    };
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "100000", 1);
    socket = (board.directory.path / "relay.sock").string();
    const Child hanging({TAVOR_RELAY_PROGRAM, "--daemon", board.socket_path(), "--socket", socket, "--listen",
                         "", "--positioning", "demand"},
                        fifo);
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    ASSERT_TRUE(wait_until(hears));
    while (write(output, "x", 1) == 1) { // its pipe is full now
    }
    daemon.kill(); // of which it wants to tell
    EXPECT_TRUE(wait_until([&] {
        hears();
        pollfd word = {told, POLLIN, 0};
        return poll(&word, 1, 500) == 0; // ms: ten times as long as between two words
    }));
    char bytes[65536];
    while (read(output, bytes, sizeof bytes) > 0) {
    }
    EXPECT_TRUE(wait_until(hears)) << "it goes on";
    close(output);
    close(told);
}

} // namespace
