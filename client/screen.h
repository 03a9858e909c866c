// The terminal as a screen. Built without ncurses it can't be opened.
#ifndef TAVOR_CLIENT_SCREEN_H
#define TAVOR_CLIENT_SCREEN_H

#include "client/grid.h"

#include <string>

// Takes the terminal. While it holds up what is drawn, datagrams that come are thrown away. Returns what is
// missing and what to do about it, empty on success.
std::string screen_open(int incoming);

// Restores the terminal.
void screen_close();

int screen_width();
int screen_height();

// Shows nothing while the terminal takes no output. While it takes only a part, a signal that ends the tool
// does so at once, restoring no more than the terminal's settings.
void screen_show(const Grid& grid);

// The next key, as monitor_key takes it, without waiting; -1 for none, 0 for one that means nothing here.
int screen_key();

#endif
