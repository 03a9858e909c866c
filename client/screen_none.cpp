// In the place of screen.cpp where ncurses was not there at the build.
#include "client/screen.h"

std::string screen_open(int) {
    return "this tavorctl was built without ncurses: take --once for one frame as text, or build it with "
           "libncurses-dev";
}

void screen_close() {}

int screen_width() {
    return 1;
}

int screen_height() {
    return 1;
}

void screen_show(const Grid&) {}

int screen_key() {
    return -1;
}
