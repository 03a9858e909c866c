// Requests of `tavor-board ctl`: a JSON object in, a JSON object out.
#ifndef TAVOR_BOARD_CONTROL_H
#define TAVOR_BOARD_CONTROL_H

#include "devices/board_devices.h"
#include "interpose/board_clock.h"
#include "server/assist_server.h"

#include <string>

// What requests are about.
struct ControlTarget {
    Board* board = nullptr;
    BoardClock* clock = nullptr;
    AssistServer* assist = nullptr; // none: null
    bool quit = false;              // set when the board is to end
};

// Answers one request: {"ok": true, ...} or {"ok": false, "error": text}.
std::string control_answer(ControlTarget& target, const std::string& request);

#endif
