#include "metrics/metrics.h"

#include "metrics/metrics_report.h"
#include "metrics/metrics_request.h"
#include "system/event_guard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <event2/util.h>
#include <list>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::ptrdiff_t kConnectionsMax = 16; // of a socket
constexpr int kPatienceS = 5;
constexpr int kPauseS = 1; // without a descriptor for the next connection
// In one go: a place is kept for four turns of the loop at least, so that what its owner asks is read.
constexpr std::ptrdiff_t kAcceptsMax = kConnectionsMax / 4;

struct Connection {
    int fd = -1;
    int listener = -1; // the socket that it came to
    std::string head;  // of the request
    bool answered = false;
    EventPtr readable;
    EventPtr deadline;
};

struct Listener {
    int fd = -1;
    EventPtr connection;
};

struct MetricsState {
    event_base* base = nullptr;
    MetricsSettings settings;
    std::vector<Listener> listeners;
    std::list<Connection> connections; // the oldest first
    EventPtr pause;
};

MetricsState state;

void drop(const Connection& connection) {
    const auto one = std::find_if(state.connections.begin(), state.connections.end(),
                                  [&](const Connection& other) { return &other == &connection; });
    const int fd = connection.fd;
    state.connections.erase(one); // its events end before the descriptor
    close(fd);
}

std::string response(const char* status, const char* fields, const std::string& body) {
    return std::string("HTTP/1.1 ") + status + "\r\nConnection: close\r\n" + fields +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string answer_to(MetricsAsked asked) {
    constexpr char kPlain[] = "Content-Type: text/plain; charset=utf-8\r\n";
    switch (asked) {
    case MetricsAsked::kMetrics:
        return response("200 OK", "Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n",
                        metrics_report());
    case MetricsAsked::kNotFound:
        return response("404 Not Found", kPlain, "only /metrics is here\n");
    case MetricsAsked::kNotAllowed:
        return response("405 Method Not Allowed", "Allow: GET\r\nContent-Type: text/plain; charset=utf-8\r\n",
                        "only GET is served\n");
    default:
        return response("400 Bad Request", kPlain, "no request of HTTP, or too long a one\n");
    }
}

// The answer, some 4 KiB, is all that is ever sent: the empty buffer of a new socket has room for several of
// it. It is followed by the end of this direction only: to close with unread bytes would take the answer away
// from the other side.
void reply(Connection& connection, const std::string& answer) {
    connection.answered = true;
    const ssize_t sent = send(connection.fd, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(answer.size())) {
        return drop(connection);
    }
    shutdown(connection.fd, SHUT_WR);
}

// The connection may be gone afterwards.
void take(Connection& connection, std::string_view bytes) {
    if (connection.answered) {
        return; // after the request
    }
    connection.head += bytes;
    const MetricsAsked asked = metrics_request_read(connection.head);
    if (asked != MetricsAsked::kMore) {
        reply(connection, answer_to(asked));
    }
}

void on_readable(evutil_socket_t fd, short /*unused*/, void* one) {
    Connection& connection = *static_cast<Connection*>(one);
    std::array<char, kMetricsHeadMax> bytes = {};
    const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size > 0) {
        take(connection, {bytes.data(), static_cast<size_t>(size)});
    } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        drop(connection);
    }
}

void on_deadline(evutil_socket_t /*unused*/, short /*unused*/, void* one) {
    drop(*static_cast<Connection*>(one));
}

void make_room(int listener) {
    const auto is_of = [&](const Connection& one) { return one.listener == listener; };
    auto& all = state.connections;
    if (std::count_if(all.begin(), all.end(), is_of) >= kConnectionsMax) {
        drop(*std::find_if(all.begin(), all.end(), is_of));
    }
}

void add(int fd, int listener) {
    make_room(listener);
    Connection& connection = state.connections.emplace_back();
    connection.fd = fd;
    connection.listener = listener;
    connection.readable.reset(event_new(state.base, fd, EV_READ | EV_PERSIST, on_readable, &connection));
    connection.deadline.reset(event_new(state.base, -1, 0, on_deadline, &connection));
    event_add(connection.readable.get(), nullptr);
    event_arm(connection.deadline, kPatienceS * state.settings.second);
}

void set_listening(bool on) {
    for (const Listener& one : state.listeners) {
        on ? event_add(one.connection.get(), nullptr) : event_del(one.connection.get());
    }
}

void on_connection(evutil_socket_t listener, short /*unused*/, void* /*unused*/) {
    for (std::ptrdiff_t i = 0; i < kAcceptsMax; ++i) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) {
            set_listening(false);
            event_arm(state.pause, kPauseS * state.settings.second);
        }
        if (fd < 0) {
            return;
        }
        add(fd, listener);
    }
}

void on_pause_over(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    set_listening(true);
}

} // namespace

void metrics_open(event_base* base, const MetricsSettings& settings) {
    state = {};
    state.base = base;
    state.settings = settings;
    state.pause.reset(event_new(base, -1, 0, on_pause_over, nullptr));
    metrics_report_open(settings.daemon);
}

void metrics_close() {
    while (!state.connections.empty()) {
        drop(state.connections.front());
    }
    for (Listener& one : state.listeners) {
        one.connection.reset();
        close(one.fd);
    }
    state = {};
    metrics_report_close();
}

void metrics_serve(int socket) {
    evutil_make_socket_nonblocking(socket);
    state.listeners.push_back(
        {socket, EventPtr(event_new(state.base, socket, EV_READ | EV_PERSIST, on_connection, nullptr))});
    set_listening(true);
}

size_t metrics_connections() {
    return state.connections.size();
}
