#include "gpsd/gpsd.h"

#include "gnss/gnss.h"
#include "gpsd/gpsd_clients.h"
#include "gpsd/gpsd_command.h"
#include "hub/hub.h"
#include "system/listen.h"
#include "upstream/upstream.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kAcceptsMax = 16; // at a time: others get their turn
constexpr int kPauseS = 1;      // without a descriptor for the next connection

struct GpsdState {
    GpsdSettings settings;
    int fd = -1;
    std::optional<Utc> active;                                // since when there is a daemon
    std::optional<std::chrono::steady_clock::time_point> sky; // the latest that was told
    EventPtr connection;
    EventPtr pause;
};

GpsdState state;

Utc now() {
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

void answer(GpsdClient& client, const std::string& text) {
    gpsd_clients_send(client, {std::make_shared<const std::string>(text), true});
}

void answer_watch(GpsdClient& client, const GpsdCommand& command) {
    GpsdWatch watch = client.watch;
    const std::string problem = gpsd_command_watch(watch, command.argument);
    if (!problem.empty()) {
        return answer(client, gpsd_report_error(problem));
    }
    gpsd_clients_watch(client, watch);
    answer(client, gpsd_report_devices(state.active) + gpsd_report_watch(watch));
}

void perform(GpsdClient& client, const GpsdCommand& command) {
    if (command.name == "?WATCH") {
        answer_watch(client, command);
    } else if (command.name == "?VERSION") {
        answer(client, gpsd_report_version());
    } else if (command.name == "?DEVICES") {
        answer(client, gpsd_report_devices(state.active));
    } else if (command.name == "?DEVICE") { // read only: what it asks for is not set
        answer(client, gpsd_report_device(state.active));
    } else if (command.name == "?POLL") {
        answer(client, gpsd_report_poll(gnss_latest(), state.active.has_value(), now()));
    } else {
        ++hub_counters().malformed;
        if (!command.name.empty()) { // what is no request at all is not answered, as gpsd does not
            answer(client, gpsd_report_error("Unrecognized request '" + command.name + "'"));
        }
    }
}

// Drops what belongs to a line that was too long.
void skip(GpsdClient& client) {
    const size_t end = client.input.find_first_of("\r\n");
    client.skipping = end == std::string::npos;
    client.input.erase(0, end);
}

// One request after the other, as long as the answers are taken.
void serve(GpsdClient& client) {
    if (client.skipping) {
        skip(client);
    }
    while (client.answers == 0) {
        const auto command = gpsd_command_next(client.input);
        if (!command) {
            break;
        }
        perform(client, *command);
    }
    if (client.answers == 0 && client.input.size() > kGpsdCommandMax) {
        client.input.clear();
        client.skipping = true;
        ++hub_counters().malformed;
        answer(client, gpsd_report_error("Request too long"));
    }
}

// Sends what `make` returns to all who want it; it is made when there is one.
template <typename Make, typename Wants> void send_to(const Make& make, Wants wants) {
    std::shared_ptr<const std::string> shared;
    gpsd_clients_each([&](GpsdClient& client) {
        if (wants(client.watch)) {
            shared = shared ? shared : std::make_shared<const std::string>(make());
            gpsd_clients_send(client, {shared, false});
        }
    });
}

bool wants_json(const GpsdWatch& watch) {
    return watch.json;
}

bool wants_sentences(const GpsdWatch& watch) {
    return watch.nmea || watch.raw > 0;
}

// DOPs come with each epoch, a view of the sky once a second as a rule, and most of a SKY is the view. So it
// is told with each view, and without one once a second.
bool tells_sky(const GnssEpoch& epoch) {
    const auto now = std::chrono::steady_clock::now();
    const bool tells =
        epoch.has_view || (epoch.has_sky && (!state.sky || now - *state.sky >= state.settings.second));
    state.sky = tells ? now : state.sky;
    return tells;
}

void on_epoch(const GnssEpoch& epoch) {
    send_to([&] { return gpsd_report_tpv(epoch); }, wants_json);
    if (epoch.errors) {
        send_to([&] { return gpsd_report_gst(epoch); }, wants_json);
    }
    if (tells_sky(epoch)) {
        send_to([&] { return gpsd_report_sky(epoch); }, wants_json);
    }
}

void on_item(const HubItem& item) {
    if (item.kind == HubKind::kSentence) {
        send_to([&] { return std::string(hub_text(item)); }, wants_sentences);
    }
}

// The device is there from now on, or no longer.
void on_daemon(bool connected) {
    state.active = connected ? std::optional(now()) : std::nullopt;
    send_to([] { return gpsd_report_device(state.active); }, wants_json);
    gpsd_clients_flush();
}

void on_connection(evutil_socket_t fd, short /*unused*/, void* /*unused*/) {
    for (int i = 0; i < kAcceptsMax; ++i) {
        const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) {
            event_del(state.connection.get());
            event_arm(state.pause, kPauseS * state.settings.second);
        }
        if (connection < 0) {
            return;
        }
        answer(gpsd_clients_add(connection), gpsd_report_version());
    }
}

void on_pause_over(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    event_add(state.connection.get(), nullptr);
}

constexpr size_t kPortOffset = offsetof(sockaddr_in, sin_port); // the same in both families
static_assert(kPortOffset == offsetof(sockaddr_in6, sin6_port));

} // namespace

bool gpsd_open(event_base* base, const GpsdSettings& settings) {
    state = {};
    state.settings = settings;
    state.fd = listen_tcp(settings.listen);
    if (state.fd < 0) {
        return false;
    }
    state.connection.reset(event_new(base, state.fd, EV_READ | EV_PERSIST, on_connection, nullptr));
    state.pause.reset(event_new(base, -1, 0, on_pause_over, nullptr));
    event_add(state.connection.get(), nullptr);
    gpsd_clients_open(base, settings.second, serve, settings.clients_max);
    state.active = upstream_connected() ? std::optional(now()) : std::nullopt;
    upstream_watch(on_daemon);
    hub_take(on_item);
    hub_take_rest(gpsd_clients_flush);
    gnss_take(on_epoch);
    return true;
}

void gpsd_close() {
    gpsd_clients_close();
    const int fd = state.fd;
    state = {};
    if (fd >= 0) {
        close(fd);
    }
}

int gpsd_port() {
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    if (state.fd < 0 || getsockname(state.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    in_port_t port = 0;
    memcpy(&port, reinterpret_cast<const char*>(&address) + kPortOffset, sizeof port);
    return ntohs(port);
}
