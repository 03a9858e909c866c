#include "server/run.h"

#include "gnss/gnss.h"
#include "gpsd/gpsd.h"
#include "hub/hub.h"
#include "local/local.h"
#include "local/local_socket.h"
#include "mqtt/mqtt.h"
#include "server/exit_status.h"
#include "system/event_guard.h"
#include "system/supervisor.h"
#include "upstream/positioning.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds kReadyWait{5}; // for room in the supervisor's queue

// A descriptor for each TCP client.
void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int fail(const std::string& what) {
    const int error = errno;
    fprintf(stderr, "tavor-relay: %s: %s\n", what.c_str(), strerror(error));
    return kExitFailed;
}

void on_signal(evutil_socket_t /*unused*/, short /*unused*/, void* base) {
    event_base_loopbreak(static_cast<event_base*>(base));
}

void on_watchdog(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    supervisor_tell("WATCHDOG=1");
}

// The loop with everything in it, to its end.
int loop(event_base* base) {
    const EventPtr term(evsignal_new(base, SIGTERM, on_signal, base));
    const EventPtr interrupt(evsignal_new(base, SIGINT, on_signal, base));
    const EventPtr watchdog(event_new(base, -1, EV_PERSIST, on_watchdog, nullptr));
    event_add(term.get(), nullptr);
    event_add(interrupt.get(), nullptr);
    if (supervisor_watchdog().count() > 0) {
        event_arm(watchdog, supervisor_watchdog());
    }
    supervisor_tell("READY=1", kReadyWait);
    event_base_dispatch(base);
    supervisor_tell("STOPPING=1");
    return kExitSuccess;
}

std::chrono::milliseconds milliseconds_of(double seconds) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

int serve(event_base* base, const Options& options) {
    hub_open(base);
    if (!upstream_open(base, {.path = options.daemon})) {
        return fail("can't make a socket for the daemon's answers");
    }
    positioning_open(base, {.always = options.always, .stop_delay = milliseconds_of(options.stop_delay_s)});
    gnss_open();
    if (!options.listen.empty() && !gpsd_open(base, {.listen = options.listen})) {
        const bool malformed = errno == EINVAL;
        const int status = fail("can't listen at " + options.listen);
        return malformed ? kExitUsage : status;
    }
    if (!options.mqtt.host.empty()) {
        if (const std::string problem = mqtt_open(base, options.mqtt); !problem.empty()) {
            fprintf(stderr, "tavor-relay: %s\n", problem.c_str());
            return kExitFailed;
        }
    }
    const int given = supervisor_socket();
    const int socket = given >= 0 ? given : local_socket_open(options.socket);
    if (socket < 0) {
        return fail("can't serve local clients at " + options.socket);
    }
    local_socket_prepare(socket);
    local_open(base, {.fd = socket});
    const int status = loop(base);
    if (given < 0) {
        unlink(options.socket.c_str());
    }
    return status;
}

} // namespace

int run(const Options& options) {
    raise_descriptor_limit();
    const EventBasePtr base(event_base_new());
    if (!base || event_base_priority_init(base.get(), kPriorities) != 0) {
        return fail("can't make an event loop");
    }
    const int status = serve(base.get(), options);
    local_close();
    mqtt_close();
    gpsd_close();
    gnss_close();
    positioning_close();
    upstream_close();
    hub_close();
    return status;
}
