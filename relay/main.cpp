// tavor-relay, the location daemon's only client and everybody's server.
#include "mqtt/mqtt.h"
#include "process/process.h"
#include "server/exit_status.h"
#include "server/options.h"
#include "server/run.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

int main(int argc, char** argv) {
    if (!process_hold_standard_descriptors()) {
        return kExitFailed;
    }
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // a supervisor sees each line when it happens
    try {
        Options options;
        if (const auto status = options_parse(argc, argv, options)) {
            return *status;
        }
        if (const std::string problem = options.mqtt.host.empty() ? "" : mqtt_enter(argv); !problem.empty()) {
            fprintf(stderr, "tavor-relay: %s\n", problem.c_str());
            return kExitFailed;
        }
        return run(options);
    } catch (const std::exception& error) {
        fprintf(stderr, "tavor-relay: %s\n", error.what());
        return kExitFailed;
    }
}
