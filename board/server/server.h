// The board server: one thread that answers the programs on a board and the control requests, one at a time.
#ifndef TAVOR_BOARD_SERVER_H
#define TAVOR_BOARD_SERVER_H

#include "server/answer.h"
#include "server/control.h"
#include "server/kernel_device.h"

#include <map>
#include <string>
#include <sys/types.h>

struct BoardServer {
    ControlTarget target; // what is served
    std::string directory;
    std::string socket_path; // of the listener, empty: none
    KernelDevice kernel;     // not open: none
    int listener = -1;
    int signals = -1;
    int events = -1;
    pid_t child = -1;
    int status = 0; // what the server ends with
    std::map<int, ServerConnection> connections;
};

// Listens in the directory, for a board that may be made until server_run, and takes over SIGINT, SIGTERM and
// SIGCHLD, which must be blocked. Returns what went wrong, else empty.
std::string server_open(BoardServer& server, const std::string& directory);

// Serves the kernel's devices too, through the module's character device. Returns what went wrong, else
// empty.
std::string server_open_kernel(BoardServer& server, const std::string& path);

// Serves until the child has ended, or without one until SIGINT or SIGTERM; these go on to a child. A quit
// request ends both. Returns the child's exit code, 128 + n when signal n ended it, else 0.
int server_run(BoardServer& server);

// Releases everything, the socket's file included.
void server_close(BoardServer& server);

#endif
