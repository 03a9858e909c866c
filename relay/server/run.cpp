#include "server/run.h"

#include "chrony/chrony.h"
#include "gnss/gnss.h"
#include "gpsd/gpsd.h"
#include "hub/hub.h"
#include "local/local.h"
#include "local/local_socket.h"
#include "metrics/metrics.h"
#include "mqtt/mqtt.h"
#include "server/exit_status.h"
#include "system/event_guard.h"
#include "system/listen.h"
#include "system/supervisor.h"
#include "upstream/positioning.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

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

bool is_path(const std::string& place) {
    return place.starts_with('/');
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

// A place that is none is an error of use.
int fail_place(const std::string& place) {
    if (errno != EINVAL) {
        return fail("can't listen at " + place);
    }
    fprintf(stderr, "tavor-relay: no place to listen at: %s; it is [ADDRESS:]PORT, IPv6 in brackets\n",
            place.c_str());
    return kExitUsage;
}

// Paths that were made here: removed on every way out, while their sockets are still open, so that none is
// another relay's by then.
struct MadePaths {
    MadePaths() = default;
    ~MadePaths() {
        for (const std::string& path : paths) {
            unlink(path.c_str());
        }
    }
    MadePaths(const MadePaths&) = delete;
    MadePaths& operator=(const MadePaths&) = delete;

    // As listen_path.
    int listen(const std::string& path, int type) {
        const int fd = listen_path(path, type);
        if (fd >= 0) {
            paths.push_back(path);
        }
        return fd;
    }

    std::vector<std::string> paths;
};

// The metrics, at the place of the option.
int open_metrics(event_base* base, const Options& options, MadePaths& made) {
    metrics_open(base, {.daemon = options.daemon});
    if (options.metrics.empty()) {
        return kExitSuccess;
    }
    const int fd =
        is_path(options.metrics) ? made.listen(options.metrics, SOCK_STREAM) : listen_tcp(options.metrics);
    if (fd < 0) {
        return fail_place(options.metrics);
    }
    metrics_serve(fd);
    return kExitSuccess;
}

// The local clients' socket, and beside it that of the metrics. A supervisor that hands over the one hands
// over the other too, or there is none: the place beside it is not ours.
int open_local(event_base* base, const Options& options, MadePaths& made) {
    const int given = supervisor_socket(SOCK_DGRAM);
    const int socket = given >= 0 ? given : made.listen(options.socket, SOCK_DGRAM);
    if (socket < 0) {
        return fail("can't serve local clients at " + options.socket);
    }
    local_socket_prepare(socket);
    local_open(base, {.fd = socket});
    const std::string beside = options.socket + TAVOR_RELAY_METRICS_SUFFIX;
    const int stream = given >= 0 ? supervisor_socket(SOCK_STREAM) : made.listen(beside, SOCK_STREAM);
    if (stream >= 0) {
        metrics_serve(stream);
    }
    return given >= 0 || stream >= 0 ? kExitSuccess : fail("can't serve metrics at " + beside);
}

int serve(event_base* base, const Options& options) {
    MadePaths made;
    hub_open(base);
    if (!upstream_open(base, {.path = options.daemon})) {
        return fail("can't make a socket for the daemon's answers");
    }
    positioning_open(
        base,
        {.always = options.always, .stop_delay = milliseconds_of(options.stop_delay_s), .left_on = true});
    gnss_open();
    if (!options.listen.empty() && !gpsd_open(base, {.listen = options.listen})) {
        return fail_place(options.listen);
    }
    if (!options.mqtt.host.empty()) {
        if (const std::string problem = mqtt_open(base, options.mqtt); !problem.empty()) {
            fprintf(stderr, "tavor-relay: %s\n", problem.c_str());
            return kExitFailed;
        }
    }
    if (!options.chrony.empty() && !chrony_open({.path = options.chrony})) {
        return fail("can't make a socket for chronyd");
    }
    int status = open_metrics(base, options, made);
    if (status == kExitSuccess) {
        status = open_local(base, options, made);
    }
    return status == kExitSuccess ? loop(base) : status;
}

} // namespace

int run(const Options& options) {
    raise_descriptor_limit();
    const EventBasePtr base = event_base_open();
    if (!base) {
        return fail("can't make an event loop");
    }
    const int status = serve(base.get(), options);
    metrics_close();
    local_close();
    mqtt_close();
    gpsd_close();
    chrony_close();
    gnss_close();
    positioning_close();
    upstream_close();
    hub_close();
    return status;
}
