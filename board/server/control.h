// Requests of `tavor-board ctl`: a JSON object in, a JSON object out.
#ifndef TAVOR_BOARD_CONTROL_H
#define TAVOR_BOARD_CONTROL_H

#include "devices/board_devices.h"

#include <string>

// Answers one request: {"ok": true, ...} or {"ok": false, "error": text}. Sets *quit when the board is to
// end.
std::string control_answer(Board& board, const std::string& request, bool* quit);

#endif
