// The client tool in a directory with a daemon that the test plays.
#ifndef TAVOR_TESTS_CLIENT_SCENE_H
#define TAVOR_TESTS_CLIENT_SCENE_H

#include "support/client_fake_daemon.h"
#include "support/client_tool.h"
#include "support/private_dir.h"

#include <string>
#include <vector>

struct ClientScene {
    explicit ClientScene(const FakeDaemon::Script& script) : daemon(directory.path / "socket", script) {}

    // Command line of the tool for this daemon.
    std::vector<std::string> line(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {TAVOR_CTL_PROGRAM, "--socket", daemon.path});
        return arguments;
    }
    // Runs the tool to its end.
    int run(const std::vector<std::string>& arguments) {
        Tool tool(line(arguments));
        return end(tool);
    }
    // Keeps what a tool has printed at its end.
    int end(Tool& tool) {
        const int status = tool.end();
        out = tool.out;
        err = tool.err;
        return status;
    }

    PrivateDir directory;
    FakeDaemon daemon;
    std::string out;
    std::string err;
};

#endif
