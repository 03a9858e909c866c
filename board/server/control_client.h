// The asking side of control requests.
#ifndef TAVOR_BOARD_CONTROL_CLIENT_H
#define TAVOR_BOARD_CONTROL_CLIENT_H

#include "server/options.h"

// Sends the request of the command line to the board and prints its answer. Returns the exit code: 0, 1 when
// the board refused, 3 when there is no board or it can't be reached.
int control_run(const ControlOptions& options);

// Sends one request to the board that runs in the directory. Returns its answer, empty when there is none.
// When the board can't be reached, *reason is the errno of that.
std::string control_ask(const std::string& directory, const std::string& request, int* reason = nullptr);

#endif
