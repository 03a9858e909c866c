// tavorctl, the command-line client of the location daemon.
#include "client/commands.h"
#include "client/exit_status.h"
#include "client/interrupt.h"
#include "client/options.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A closed standard descriptor would become the socket, and output would go to the daemon as requests.
bool hold_standard_descriptors() {
    int descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = open("/dev/null", O_RDWR);
    }
    return descriptor >= 0 && close(descriptor) == 0;
}

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
    if (!hold_standard_descriptors()) {
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
