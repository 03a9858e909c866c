#include "client/connection.h"

#include "client/print.h"
#include "endpoint/endpoint.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds kLongestPoll{60000};
constexpr std::chrono::milliseconds kRestartLimit{2000};
constexpr std::chrono::milliseconds kRestartLook{50};
// No request has this number: the daemon logs it, answers nothing and takes the sender as receiver of all
// output.
constexpr uint32_t kNoRequest = 0xFFFFFFFF;

static_assert(sizeof(tavor_request) == 516);

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

int poll_time(Clock::time_point deadline) {
    const auto now = Clock::now();
    if (deadline <= now) {
        return 0;
    }
    if (deadline - now >= kLongestPoll) {
        return static_cast<int>(kLongestPoll.count());
    }
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count());
}

bool fail(Connection& connection, const std::string& text) {
    connection.error = text;
    return false;
}

// Returns 0 or an error number.
int connect_to(int socket, const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return connect(socket, generic(address), sizeof address) == 0 ? 0 : errno;
}

// Tries again while there is no daemon: one that is being restarted is gone for a moment. Returns 0 or an
// error number; EINTR when the user interrupted.
int connect_patiently(const Connection& connection) {
    const Clock::time_point end = Clock::now() + kRestartLimit;
    int error = connect_to(connection.socket, connection.path);
    while ((error == ENOENT || error == ECONNREFUSED) && Clock::now() < end) {
        pollfd interrupt = {connection.interrupt, POLLIN, 0};
        if (poll(&interrupt, 1, static_cast<int>(kRestartLook.count())) > 0) {
            return EINTR;
        }
        error = connect_to(connection.socket, connection.path);
    }
    return error;
}

bool report_error(Connection& connection, int error) {
    connection.busy = error == ETIMEDOUT;
    if (error == 0) {
        return true;
    }
    return fail(connection, error == EINTR ? "" : connection_error_text(connection.path, error));
}

// Connects rather than addresses: the kernel then takes datagrams from the daemon only, and tells by poll
// whether the daemon's queue has room. Returns 0 or an error number, as connect_patiently.
int reach(Connection& connection) {
    const int error = connect_patiently(connection);
    if (error == 0) {
        connection.reached = endpoint_file(connection.path).value_or(EndpointFile{});
    }
    return error;
}

// Sends the bytes, waiting while the daemon's queue is full. Returns 0 or an error number; ETIMEDOUT after
// the deadline, EINTR when the user interrupted.
int send_bytes(const Connection& connection, const tavor_request& request, Clock::time_point deadline) {
    while (send(connection.socket, &request, sizeof request, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        if (errno != EAGAIN) {
            return errno;
        }
        if (Clock::now() >= deadline) {
            return ETIMEDOUT;
        }
        std::array<pollfd, 2> waits = {{{connection.socket, POLLOUT, 0}, {connection.interrupt, POLLIN, 0}}};
        poll(waits.data(), waits.size(), poll_time(deadline));
        if (waits[1].revents != 0) {
            return EINTR;
        }
    }
    return 0;
}

// Sends again to the socket that now stands at the path when the earlier one is gone.
int send_or_reach(Connection& connection, const tavor_request& request, Clock::time_point deadline) {
    const int error = send_bytes(connection, request, deadline);
    if (error != ECONNREFUSED) {
        return error;
    }
    const int reached = reach(connection);
    return reached == 0 ? send_bytes(connection, request, deadline) : reached;
}

Received read_response(Connection& connection, tavor_response& response) {
    const ssize_t length = recv(connection.socket, &response, sizeof response, MSG_DONTWAIT | MSG_TRUNC);
    if (length == static_cast<ssize_t>(sizeof response)) {
        return Received::kResponse;
    }
    if (length >= 0 || errno == EAGAIN || errno == EINTR) {
        return Received::kMalformed;
    }
    fail(connection, "cannot receive from the daemon at " + print_safe(connection.path) + ": " +
                         strerror(errno) + "; try again");
    return Received::kFailed;
}

} // namespace

Connection::~Connection() {
    if (socket >= 0) {
        close(socket);
    }
}

Clock::time_point deadline_in(double seconds) {
    if (seconds <= 0) {
        return Clock::time_point::max();
    }
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string connection_usual_path(const char* relay, const char* daemon) {
    const int spare = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool answers = spare >= 0 && connect_to(spare, relay) == 0;
    if (spare >= 0) {
        close(spare);
    }
    return answers ? relay : daemon;
}

bool connection_open(Connection& connection, const std::string& path) {
    connection.path = path;
    connection.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (connection.socket < 0 || !endpoint_bind(connection.socket, "tavorctl")) {
        return fail(connection, std::string("cannot make a socket for the answers: ") + strerror(errno) +
                                    "; close other programs and try again");
    }
    return report_error(connection, reach(connection));
}

bool connection_send(Connection& connection, tavor_request_type type, const std::string& text,
                     Clock::time_point deadline) {
    tavor_request request = {};
    request.type = static_cast<uint32_t>(type);
    text.copy(request.text, sizeof request.text - 1);
    return report_error(connection, send_or_reach(connection, request, deadline));
}

Retaken connection_retake(Connection& connection, Clock::time_point deadline) {
    tavor_request request = {};
    request.type = kNoRequest;
    const int error = send_bytes(connection, request, deadline);
    if (error != ECONNREFUSED) {
        return report_error(connection, error) ? Retaken::kSameDaemon : Retaken::kFailed;
    }
    const bool started = report_error(connection, reach(connection)) &&
                         connection_send(connection, TAVOR_REQUEST_START, "", deadline);
    return started ? Retaken::kNewDaemon : Retaken::kFailed;
}

Presence connection_presence(const Connection& connection) {
    const int spare = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (spare < 0) {
        return Presence::kSame;
    }
    const int error = connect_to(spare, connection.path);
    close(spare);
    if (error == ECONNREFUSED || error == ENOENT) {
        return Presence::kGone;
    }
    const std::optional<EndpointFile> present = endpoint_file(connection.path);
    return !present || endpoint_same_file(*present, connection.reached) ? Presence::kSame
                                                                        : Presence::kRestarted;
}

void connection_note(Connection& connection, const std::string& path) {
    connection.path = path;
    connection.reached = endpoint_file(path).value_or(EndpointFile{});
}

Received connection_receive(Connection& connection, tavor_response& response, Clock::time_point deadline) {
    std::array<pollfd, 3> waits = {
        {{connection.socket, POLLIN, 0}, {connection.interrupt, POLLIN, 0}, {connection.output, 0, 0}}};
    do {
        if (poll(waits.data(), waits.size(), poll_time(deadline)) < 0 && errno != EINTR) {
            fail(connection, std::string("cannot wait for the daemon: ") + strerror(errno) + "; try again");
            return Received::kFailed;
        }
        if (waits[1].revents != 0) {
            return Received::kInterrupted;
        }
        if (waits[2].revents != 0) {
            return Received::kOutputClosed;
        }
        if (waits[0].revents != 0) {
            return read_response(connection, response);
        }
    } while (Clock::now() < deadline);
    return Received::kTimeout;
}

std::string connection_error_text(const std::string& path, int error) {
    const std::string place = print_safe(path) + ": " + strerror(error);
    const bool usual = path == TAVOR_SOCKET_PATH;
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
        return "no daemon at " + place + "; " +
               (usual ? "start it with 'systemctl start tavor'" : "start it or check --socket");
    case EACCES:
        return "no access to the daemon at " + place +
               "; join group tavor ('sudo usermod -a -G tavor $USER') and log in again";
    case ETIMEDOUT:
    case EAGAIN:
        return "no request is taken by the daemon at " + place +
               "; restart it, or look at its log with 'journalctl --namespace=tavor'";
    default:
        return "cannot reach the daemon at " + place + "; check --socket";
    }
}
