// 'tavorctl monitor' on the simulated board: one frame, and the whole screen in a terminal that tmux plays.
#include "support/capture.h"
#include "support/harness.h"

#include <gtest/gtest.h>

namespace {

struct Scene {
    Scene() : daemon(board) {}

    SimulatedBoard board{{"--rate", "5"}};
    DaemonOnBoard daemon;
};

// A terminal with the monitor in it; the test has its own tmux server.
struct Terminal {
    explicit Terminal(const Scene& scene) : socket(scene.board.directory.path / "tmux") {
        run({"new-session", "-d", "-x", "80", "-y", "24",
             "TERM=screen " TAVOR_CTL_PROGRAM " --socket " + scene.board.socket_path() +
                 " monitor; echo left; cat"});
    }
    ~Terminal() {
        run({"kill-server"});
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    std::string run(Arguments arguments) const {
        arguments.insert(arguments.begin(), {TAVOR_TMUX, "-S", socket, "-f", "/dev/null"});
        return run_program(arguments).out;
    }
    std::string screen() const {
        return run({"capture-pane", "-p"});
    }
    bool wait_screen(const std::string& text) const {
        return wait_until([&] { return screen().find(text) != std::string::npos; });
    }
    void keys(const Arguments& keys) const {
        Arguments arguments = {"send-keys"};
        arguments.insert(arguments.end(), keys.begin(), keys.end());
        run(arguments);
    }

    std::string socket;
};

} // namespace

TEST(MonitorOnBoard, OneFrameNeedsNoTerminal) {
    const Scene scene;
    const RunResult once =
        run_program({TAVOR_CTL_PROGRAM, "--socket", scene.board.socket_path(), "monitor", "--once"});
    EXPECT_EQ(once.status, 0) << once.err;
    const auto lines = lines_of(once.out);
    ASSERT_EQ(lines.size(), 24U) << once.out;
    EXPECT_NE(lines[0].find("autonomous fix, "), std::string::npos) << once.out;
    EXPECT_EQ(lines[1].rfind(" latitude   43.29", 0), 0U) << once.out;
    EXPECT_NE(once.out.find("G GPS"), std::string::npos) << once.out;
    EXPECT_NE(once.out.find("##"), std::string::npos) << once.out;
    const RunResult none = run_program({TAVOR_CTL_PROGRAM, "--socket", scene.board.socket_path(), "monitor"});
    EXPECT_EQ(none.status, 64) << "no terminal";
}

TEST(MonitorOnBoard, ScreenFollowsTheChipTheKeysAndTheTerminalsSize) {
    if (std::string(TAVOR_TMUX).empty() || !TAVOR_HAS_NCURSES) {
        GTEST_SKIP() << "no tmux, or built without ncurses";
    }
    const Scene scene;
    const Terminal terminal(scene);
    ASSERT_TRUE(terminal.wait_screen("G GPS")) << terminal.screen();
    const auto lines = lines_of(terminal.screen());
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_EQ(lines[23], " s start  x stop  v save  o outlet  : command to the chip  q quit");
    terminal.keys({":353,1", "Enter"});
    EXPECT_TRUE(terminal.wait_screen("chip: $PZUL001,353,")) << terminal.screen();
    terminal.run({"resize-window", "-x", "120", "-y", "40"});
    EXPECT_TRUE(wait_until([&] {
        const auto resized = lines_of(terminal.screen());
        return resized.size() == 40 && resized[39].rfind(" s start", 0) == 0 && resized[0].size() > 100;
    })) << terminal.screen();
    terminal.keys({"x"});
    EXPECT_TRUE(terminal.wait_screen("daemon: positioning stopped")) << terminal.screen();
    terminal.keys({"s"});
    EXPECT_TRUE(terminal.wait_screen("daemon: positioning started")) << terminal.screen();
    terminal.keys({"v"});
    EXPECT_TRUE(terminal.wait_screen("daemon: location saved")) << terminal.screen();
    terminal.keys({"o"});
    EXPECT_TRUE(terminal.wait_screen("debug outlet: o off")) << terminal.screen();
    terminal.run({"resize-window", "-x", "100", "-y", "30"});
    EXPECT_TRUE(wait_until([&] {
        const auto resized = lines_of(terminal.screen());
        return resized.size() == 30 && resized[29].rfind(" debug outlet: o off", 0) == 0;
    })) << terminal.screen();
    terminal.keys({"f"});
    EXPECT_TRUE(terminal.wait_screen("daemon: debug outlet switched")) << terminal.screen();
    terminal.keys({"q"});
    EXPECT_TRUE(terminal.wait_screen("left")) << terminal.screen();
    EXPECT_EQ(terminal.screen().find("q quit"), std::string::npos) << "the terminal is given back";
}
