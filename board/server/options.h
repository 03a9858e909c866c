// Command line of tavor-board.
#ifndef TAVOR_BOARD_SERVER_OPTIONS_H
#define TAVOR_BOARD_SERVER_OPTIONS_H

#include "devices/board_devices.h"

#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

struct RunOptions {
    BoardOptions board;
    std::string directory; // empty: one of its own, removed at the end
    bool keep = false;
    std::string
        kernel_device;      // serves the kernel's own devices through this one, empty: the preload library's
    uint32_t speed = 1;     // of the board's clock, times the host's
    std::string time;       // UTC at the start, empty: the host's
    bool assistance = true; // a server of predicted orbits
    std::string log;        // file for the program's output, empty: passed through
    std::vector<std::string> configuration; // KEY=VALUE lines before the board's own
    std::vector<std::pair<std::string, std::string>> faults;
    std::vector<std::string> program;
};

struct ExecOptions {
    std::string directory;
    uint32_t speed = 0; // the board's clock gets this speed, 0: keeps its own
    std::vector<std::string> program;
};

struct ControlOptions {
    std::string directory;
    bool json = false;
    std::string command; // of the control protocol
    std::string name;    // fault
    std::string value;
    bool list = false;
    std::string body; // sentence
    std::string hex;
    std::string file;
    uint32_t rate_hz = 0;
    uint32_t speed = 0; // time: 0 and empty mean no change
    int64_t advance_s = 0;
    std::string time;
};

struct Options {
    enum class Action { kRun, kExec, kControl } action = Action::kRun;
    RunOptions run;
    ExecOptions exec;
    ControlOptions control;
};

// Reads the command line. Returns -1 to go on, else the exit code: help and version were printed, or what is
// wrong with it.
int read_options(int argc, char** argv, Options* options);

#endif
