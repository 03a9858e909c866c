#include "server/control_client.h"
#include "server/launch.h"
#include "server/options.h"
#include "server/run.h"

#include <cstdio>

int main(int argc, char** argv) {
    constexpr int kNotStarted = 127;
    Options options;
    const int code = read_options(argc, argv, &options);
    if (code >= 0) {
        return code;
    }
    switch (options.action) {
    case Options::Action::kRun:
        return board_run(options.run);
    case Options::Action::kExec:
        std::fprintf(stderr, "tavor-board: %s\n",
                     launch_replace(options.exec.directory, options.exec.program).c_str());
        return kNotStarted;
    default:
        return control_run(options.control);
    }
}
