// The screen on a terminal that takes a part of a frame and nobody reads.
#include "client/interrupt.h"
#include "client/screen.h"

#include "support/wait.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr winsize kSize = {200, 500, 0, 0}; // a frame of 100,000 bytes; a terminal keeps 64 KiB at most
constexpr int kMore = 2000;                 // datagrams, more than any queue holds

// Shows one full frame on the terminal.
[[noreturn]] void show_frame(int terminal, int incoming) {
    prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is ended leaves nothing behind
    dup2(terminal, STDIN_FILENO);
    dup2(terminal, STDOUT_FILENO);
    setenv("TERM", "vt100", 1);
    interrupt_open();
    screen_open(incoming);
    Grid grid = grid_make(kSize.ws_col, kSize.ws_row);
    for (int row = 0; row < grid.height; ++row) {
        grid_text(grid, row, 0, std::string(kSize.ws_col, 'x'));
    }
    screen_show(grid);
    _exit(EXIT_FAILURE); // it can't have been shown
}

} // namespace

TEST(Screen, FrameThatIsStuckHoldsUpNeitherDatagramsNorSignals) {
    if (!TAVOR_HAS_NCURSES) {
        GTEST_SKIP() << "built without ncurses";
    }
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(master) + unlockpt(master), 0);
    ASSERT_EQ(ioctl(master, TIOCSWINSZ, &kSize), 0);
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        show_frame(slave, ends[0]);
    }
    close(ends[0]);
    const timeval limit = {kWaitLimit.count(), 0};
    setsockopt(ends[1], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int sent = 0;
    while (sent < kMore && send(ends[1], "x", 1, MSG_NOSIGNAL) == 1) {
        ++sent;
    }
    EXPECT_EQ(sent, kMore);
    kill(child, SIGTERM);
    int status = 0;
    if (!wait_until([&] { return waitpid(child, &status, WNOHANG) == child; })) {
        ADD_FAILURE() << "it goes on";
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    termios settings = {};
    EXPECT_EQ(tcgetattr(master, &settings), 0);
    EXPECT_NE(settings.c_lflag & ICANON, 0U) << "the terminal has its settings back";
    close(slave);
    close(master);
    close(ends[1]);
}
