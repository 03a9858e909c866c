// ncurses only shows the grid and reads keys; all that is shown is drawn elsewhere. Its names are macros, so
// it stays in this file.
#include "client/screen.h"

#include "client/monitor_state.h"

#include <clocale>
#include <curses.h>

namespace {

constexpr int kEscapeMs = 50; // that the rest of a key's sequence may take
constexpr int kDelete = 127;

SCREEN* terminal = nullptr;

} // namespace

std::string screen_open() {
    setlocale(LC_CTYPE, "");
    terminal = newterm(nullptr, stdout, stdin);
    if (terminal == nullptr) {
        return "the kind of this terminal is unknown: set TERM to one that is installed (package ncurses-term), or "
               "take --once";
    }
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(kEscapeMs);
    curs_set(0);
    return "";
}

void screen_close() {
    if (terminal != nullptr) {
        endwin();
        delscreen(terminal);
        terminal = nullptr;
    }
}

int screen_width() {
    return COLS;
}

int screen_height() {
    return LINES;
}

// The corner at the end can't be written without scrolling: mvaddnstr leaves it out there without harm.
void screen_show(const Grid& grid) {
    for (int row = 0; row < grid.height; ++row) {
        const auto index = static_cast<size_t>(row);
        attrset(grid.reversed[index] ? A_REVERSE : A_NORMAL);
        mvaddnstr(row, 0, grid.rows[index].c_str(), grid.width);
    }
    attrset(A_NORMAL);
    refresh();
}

int screen_key() {
    int key = getch();
    while (key == KEY_RESIZE) { // the next frame has the new size; nobody has pressed anything
        key = getch();
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
