// What another program prints, within a time limit.
#ifndef TAVOR_CLIENT_TOOL_OUTPUT_H
#define TAVOR_CLIENT_TOOL_OUTPUT_H

#include <chrono>
#include <string>
#include <vector>

struct ToolOutput {
    bool started = false;
    bool whole = false; // it ended its output in time
    std::string text;   // of its standard output, at most 2 MiB
};

// Runs the program, found in PATH unless its name holds a slash, with an environment of PATH alone. One that
// is not done in time is killed.
ToolOutput tool_output(std::vector<std::string> arguments, std::chrono::milliseconds limit);

#endif
