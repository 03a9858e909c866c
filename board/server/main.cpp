#include "process/process.h"
#include "server/control_client.h"
#include "server/launch.h"
#include "server/options.h"
#include "server/run.h"

namespace {

constexpr int kFailed = 1;

// Status of a run that has printed all: what could not be written is no success.
int output_status(int status) {
    return process_output_written("tavor-board") || status != 0 ? status : kFailed;
}

} // namespace

int main(int argc, char** argv) {
    if (!process_hold_standard_descriptors()) {
        return kFailed;
    }
    Options options;
    const int code = read_options(argc, argv, &options);
    if (code >= 0) {
        return output_status(code);
    }
    switch (options.action) {
    case Options::Action::kRun:
        return board_run(options.run);
    case Options::Action::kExec:
        return launch_exec(options.exec);
    default:
        return output_status(control_run(options.control));
    }
}
