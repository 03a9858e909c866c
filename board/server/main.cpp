#include "server/control_client.h"
#include "server/launch.h"
#include "server/options.h"
#include "server/run.h"

int main(int argc, char** argv) {
    Options options;
    const int code = read_options(argc, argv, &options);
    if (code >= 0) {
        return code;
    }
    switch (options.action) {
    case Options::Action::kRun:
        return board_run(options.run);
    case Options::Action::kExec:
        return launch_exec(options.exec);
    default:
        return control_run(options.control);
    }
}
