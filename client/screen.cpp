// ncurses only shows the grid and reads keys; all that is shown is drawn elsewhere. Its names are macros, so
// it stays in this file.
#include "client/screen.h"

#include "base/non_copyable.h"
#include "client/interrupt.h"
#include "client/monitor_state.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <curses.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr int kEscapeMs = 50; // that the rest of a key's sequence may take
constexpr int kDelete = 127;
constexpr suseconds_t kLookUs = 50000; // in which a chip sends no more than the shortest queue holds
constexpr int kThrownAway = 512;       // datagrams at once

// Keys are read from a pad: reading from a window would draw it.
struct Terminal {
    SCREEN* screen = nullptr;
    WINDOW* keys = nullptr;
    termios before = {}; // settings to be given back
    int incoming = -1;
};

Terminal terminal;

void give_settings_back() {
    tcsetattr(STDIN_FILENO, TCSANOW, &terminal.before);
}

// While a write is stuck. Only what is safe in a signal handler.
void look_around(int) {
    const int error = errno;
    if (const int signal = interrupt_pending()) {
        give_settings_back();
        interrupt_end(signal);
    }
    char byte = 0;
    for (int i = 0; i < kThrownAway && recv(terminal.incoming, &byte, sizeof byte, MSG_DONTWAIT) >= 0; ++i) {
    }
    errno = error;
}

// A terminal that is stopped (Ctrl-S) or whose other end hangs holds a writer up, and the signals that end
// this tool wait to be read. So nothing is drawn while the terminal takes nothing; while it takes a part of
// what is drawn, a timer ends the tool when such a signal has come, and else throws away what comes from the
// daemon, which would wait for a queue with room.
struct TimedWrite : private NonCopyable {
    TimedWrite() {
        struct sigaction look = {};
        look.sa_handler = look_around;
        sigaction(SIGALRM, &look, nullptr);
        const itimerval every = {{0, kLookUs}, {0, kLookUs}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }
    ~TimedWrite() {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
    }
};

bool takes_output() {
    pollfd room = {STDOUT_FILENO, POLLOUT, 0};
    return poll(&room, 1, 0) == 1 && room.revents == POLLOUT;
}

bool can_place() {
    static char name[] = "cup";
    const auto sequence = reinterpret_cast<intptr_t>(tigetstr(name)); // -1: the name means no text
    return sequence != 0 && sequence != -1;
}

} // namespace

std::string screen_open(int incoming) {
    setlocale(LC_CTYPE, "");
    terminal.incoming = incoming;
    tcgetattr(STDIN_FILENO, &terminal.before);
    const TimedWrite write;
    terminal.screen = newterm(nullptr, stdout, stdin);
    if (terminal.screen == nullptr) {
        return "the kind of this terminal is unknown: set TERM to one that is installed (package ncurses-term), or "
               "take --once";
    }
    if (!can_place()) {
        screen_close();
        return "this terminal can't put text at a place of its screen: set TERM to what it is, or take --once";
    }
    cbreak();
    noecho();
    nonl();
    terminal.keys = newpad(1, 1);
    keypad(terminal.keys, TRUE);
    nodelay(terminal.keys, TRUE);
    set_escdelay(kEscapeMs);
    curs_set(0);
    return "";
}

void screen_close() {
    if (terminal.screen == nullptr) {
        return;
    }
    if (takes_output()) {
        const TimedWrite write;
        endwin();
    } else {
        give_settings_back();
    }
    delwin(terminal.keys);
    delscreen(terminal.screen);
    terminal.screen = nullptr;
}

int screen_width() {
    return COLS;
}

int screen_height() {
    return LINES;
}

// The corner at the end can't be written without scrolling: mvaddnstr leaves it out there without harm.
void screen_show(const Grid& grid) {
    if (!takes_output()) {
        return;
    }
    const TimedWrite write;
    for (int row = 0; row < grid.height; ++row) {
        const auto index = static_cast<size_t>(row);
        attrset(grid.reversed[index] ? A_REVERSE : A_NORMAL);
        mvaddnstr(row, 0, grid.rows[index].c_str(), grid.width);
    }
    attrset(A_NORMAL);
    refresh();
}

int screen_key() {
    int key = wgetch(terminal.keys);
    while (key == KEY_RESIZE) { // the next frame has the new size; nobody has pressed anything
        key = wgetch(terminal.keys);
    }
    switch (key) {
    case ERR:
        return -1;
    case '\r':
    case '\n':
    case KEY_ENTER:
        return kKeyEnter;
    case KEY_BACKSPACE:
    case kDelete:
    case kKeyBackspace:
        return kKeyBackspace;
    default:
        return key < KEY_MIN ? key : 0;
    }
}
