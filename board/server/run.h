// A board from start to end.
#ifndef TAVOR_BOARD_RUN_H
#define TAVOR_BOARD_RUN_H

#include "server/options.h"

// Runs a board, and the program on it if there is one. Returns the exit code.
int board_run(const RunOptions& options);

#endif
