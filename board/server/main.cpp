#include "server/control_client.h"
#include "server/launch.h"
#include "server/options.h"
#include "server/run.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kFailed = 1;

// A closed standard descriptor would become a socket of the board, and what is printed would go there.
// Nothing can be written to what stands for it, so that output without a place fails as before.
void hold_standard_descriptors() {
    int descriptor = open("/dev/null", O_RDONLY);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDONLY);
    }
    close(descriptor);
}

// Status of a run that has printed all: what could not be written is no success.
int output_status(int status) {
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return status;
    }
    fprintf(stderr, "tavor-board: can't write the output: %s\n", strerror(errno));
    return status == 0 ? kFailed : status;
}

} // namespace

int main(int argc, char** argv) {
    hold_standard_descriptors();
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
