// The asking side of control requests.
#ifndef TAVOR_BOARD_CONTROL_CLIENT_H
#define TAVOR_BOARD_CONTROL_CLIENT_H

#include "server/options.h"

// Sends the request of the command line to the board and prints its answer. Returns the exit code: 0, 1 when
// the board refused, 3 when there is no board.
int control_run(const ControlOptions& options);

#endif
