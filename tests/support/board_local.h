// Puts a board behind the device nodes of this process, for tests of the daemon's own modules.
#ifndef TAVOR_TESTS_BOARD_LOCAL_H
#define TAVOR_TESTS_BOARD_LOCAL_H

#include "devices/board_devices.h"

// From now on the interposed open, read, write, ioctl, close and access of this process reach the board. The
// board must outlive every interposed call.
void board_local_connect(Board& board);

// The device nodes are gone: open fails with ENOENT.
void board_local_disconnect();

#endif
