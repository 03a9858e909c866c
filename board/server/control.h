// Requests of `tavor-board ctl`: a JSON object in, a JSON object out.
#ifndef TAVOR_BOARD_CONTROL_H
#define TAVOR_BOARD_CONTROL_H

#include "devices/board_devices.h"
#include "interpose/board_clock.h"
#include "server/assist_server.h"

#include <string>
#include <vector>

// What requests are about.
struct ControlTarget {
    Board* board = nullptr;
    BoardClock* clock = nullptr;
    AssistServer* assist = nullptr; // none: null
    bool quit = false;              // set when the board is to end
};

// Every fault of the board: the chip's, then the assistance server's.
std::vector<ChipFaultInfo> control_faults();

// Starts, changes or ends one of them; "all" with "off" ends every one. Returns what is wrong, else empty.
std::string control_fault(const ControlTarget& target, const std::string& name, const std::string& value);

// Answers one request: {"ok": true, ...} or {"ok": false, "error": text}.
std::string control_answer(ControlTarget& target, const std::string& request);

#endif
