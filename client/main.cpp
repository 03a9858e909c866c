// tavorctl, the command-line client of the location daemon.
#include "client/commands.h"
#include "client/exit_status.h"
#include "client/interrupt.h"
#include "client/options.h"
#include "process/process.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <unistd.h>

namespace {

int run(int argc, char** argv) {
    Options options;
    if (const auto status = options_parse(argc, argv, options)) {
        return *status;
    }
    const int interrupt = interrupt_open();
    const int status = commands_run(options, interrupt);
    if (interrupt >= 0) {
        close(interrupt);
    }
    return status;
}

} // namespace

int main(int argc, char** argv) {
    if (!process_hold_standard_descriptors()) {
        return kExitIo;
    }
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        const int status = run(argc, argv);
        if (status > kExitSignal) {
            interrupt_end(status - kExitSignal);
        }
        return status;
    } catch (const std::exception& error) {
        fprintf(stderr, "tavorctl: %s; free memory and try again\n", error.what());
        return kExitIo;
    }
}
