#include "relay/consumers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kEventsMax = 256;
constexpr size_t kReadSize = size_t{64} * 1024;
constexpr int64_t kMsPerDay = int64_t{24} * 60 * 60 * 1000;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr double kNsPerMs = 1e6;

void watch(ConsumerGroup& group, Consumer& consumer) {
    const int on = 1;
    setsockopt(consumer.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = &consumer;
    epoll_ctl(group.epoll, EPOLL_CTL_ADD, consumer.fd, &event);
}

// "hhmmss.ss" or "hh:mm:ss.mmm".
std::optional<int64_t> time_of(std::string_view text) {
    int hours = 0;
    int minutes = 0;
    double seconds = 0;
    const std::string copy(text.substr(0, 16));
    if (sscanf(copy.c_str(), "%2d%2d%lf", &hours, &minutes, &seconds) != 3 &&
        sscanf(copy.c_str(), "%2d:%2d:%lf", &hours, &minutes, &seconds) != 3) {
        return std::nullopt;
    }
    return (int64_t{hours} * 60 + minutes) * 60000 + static_cast<int64_t>(seconds * 1000 + 0.5);
}

bool is_sentence(std::string_view line, const char* type) {
    return line.size() > 7 && line[0] == '$' && line.substr(3, 3) == type;
}

bool is_report(std::string_view line, const char* name) {
    return line.starts_with("{\"class\":\"" + std::string(name) + "\"");
}

void begin_epoch(const ConsumerGroup& group, Consumer& consumer, int64_t epoch) {
    consumer.inside = consumers_into_window(group.window, epoch) < group.window.length;
    if (consumer.inside && epoch != consumer.latest) {
        ++consumer.epochs;
    }
    consumer.latest = epoch;
}

// The end of an epoch is its TPV, or the GST that ends the epochs of a source that tells when it sent them.
void take_latency(ConsumerGroup& group, const Consumer& consumer, std::string_view line, int64_t arrived) {
    const bool ends = is_report(line, "TPV") || is_sentence(line, "GST");
    const auto sent = ends && consumer.inside ? group.sent.find(consumer.latest) : group.sent.end();
    if (sent != group.sent.end()) {
        group.latencies_ms.push_back(static_cast<double>(arrived - sent->second) / kNsPerMs);
    }
}

void take_line(ConsumerGroup& group, Consumer& consumer, std::string_view line, int64_t arrived) {
    if (line[0] != '$' && is_report(line, "WATCH")) {
        consumer.ready = true;
    } else if (consumer.kind == ConsumerKind::kIdle) {
        consumer.ready = consumer.ready || is_report(line, "VERSION");
    } else if (const auto epoch = consumers_epoch(line)) {
        begin_epoch(group, consumer, *epoch);
    }
    consumer.lines += consumer.inside ? 1 : 0;
    if (!group.sent.empty()) {
        take_latency(group, consumer, line, arrived);
    }
}

void take_bytes(ConsumerGroup& group, Consumer& consumer, std::string_view bytes, int64_t arrived) {
    consumer.rest += bytes;
    size_t begin = 0;
    for (size_t end = 0; (end = consumer.rest.find('\n', begin)) != std::string::npos; begin = end + 1) {
        take_line(group, consumer, std::string_view(consumer.rest).substr(begin, end - begin), arrived);
    }
    consumer.rest.erase(0, begin);
}

void take_datagram(ConsumerGroup& group, Consumer& consumer, const tavor_response& response,
                   int64_t arrived) {
    if (&consumer == &group.all.front() && group.on_datagram) {
        group.on_datagram(response);
    }
    if (response.code == TAVOR_CODE_START) {
        consumer.ready = true;
    } else if (response.code == TAVOR_CODE_NMEA) {
        const auto* const text = reinterpret_cast<const char*>(response.payload);
        const std::string_view line(text, strnlen(text, sizeof response.payload));
        if (!line.empty()) {
            take_line(group, consumer, line, arrived);
        }
    }
}

struct Received {
    ssize_t size = 0;
    int64_t arrived = 0; // ns of the system's clock
};

Received receive(int fd, char* bytes, size_t size) {
    alignas(cmsghdr) std::array<char, 128> control = {};
    iovec part = {bytes, size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    Received received;
    received.size = recvmsg(fd, &message, MSG_DONTWAIT);
    for (cmsghdr* one = CMSG_FIRSTHDR(&message); received.size > 0 && one != nullptr;
         one = CMSG_NXTHDR(&message, one)) {
        if (one->cmsg_level == SOL_SOCKET && one->cmsg_type == SCM_TIMESTAMPNS) {
            timespec at = {};
            memcpy(&at, CMSG_DATA(one), sizeof at);
            received.arrived = int64_t{at.tv_sec} * kNsPerSecond + at.tv_nsec;
        }
    }
    return received;
}

void read_all(ConsumerGroup& group, Consumer& consumer) {
    static std::array<char, kReadSize> bytes;
    Received received;
    while ((received = receive(consumer.fd, bytes.data(), bytes.size())).size > 0) {
        if (consumer.kind == ConsumerKind::kLocal) {
            tavor_response response = {};
            memcpy(&response, bytes.data(), std::min(static_cast<size_t>(received.size), sizeof response));
            take_datagram(group, consumer, response, received.arrived);
        } else {
            take_bytes(group, consumer, {bytes.data(), static_cast<size_t>(received.size)}, received.arrived);
        }
    }
    if (received.size == 0) {
        throw std::runtime_error("a consumer was let go");
    }
}

const char* request_of(ConsumerKind kind) {
    return kind == ConsumerKind::kJson ? "?WATCH={\"enable\":true,\"json\":true};\n"
                                       : "?WATCH={\"enable\":true,\"nmea\":true};\n";
}

} // namespace

ConsumerGroup::ConsumerGroup() : epoll(epoll_create1(EPOLL_CLOEXEC)) {}

ConsumerGroup::~ConsumerGroup() {
    for (const Consumer& consumer : all) {
        close(consumer.fd);
    }
    close(epoll);
}

void consumers_add_tcp(ConsumerGroup& group, ConsumerKind kind, int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Consumer& consumer = group.all.emplace_back();
    consumer.kind = kind;
    consumer.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(consumer.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("no connection to port " + std::to_string(port) + ": " + strerror(errno));
    }
    watch(group, consumer);
    if (kind != ConsumerKind::kIdle) {
        const std::string_view request = request_of(kind);
        send(consumer.fd, request.data(), request.size(), MSG_NOSIGNAL);
    }
}

void consumers_add_local(ConsumerGroup& group, const std::string& relay, const std::string& name) {
    Consumer& consumer = group.all.emplace_back();
    consumer.kind = ConsumerKind::kLocal;
    consumer.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un own = {};
    own.sun_family = AF_UNIX;
    name.copy(own.sun_path + 1, sizeof own.sun_path - 1); // abstract
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    relay.copy(to.sun_path, sizeof to.sun_path - 1);
    if (bind(consumer.fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        connect(consumer.fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        throw std::runtime_error("no client of " + relay + ": " + strerror(errno));
    }
    watch(group, consumer);
    tavor_request request = {};
    request.type = TAVOR_REQUEST_START;
    send(consumer.fd, &request, sizeof request, MSG_NOSIGNAL);
}

void consumers_turn(ConsumerGroup& group, std::chrono::milliseconds limit) {
    std::array<epoll_event, kEventsMax> events = {};
    const int count = epoll_wait(group.epoll, events.data(), kEventsMax, static_cast<int>(limit.count()));
    for (int i = 0; i < count; ++i) {
        read_all(group, *static_cast<Consumer*>(events[static_cast<size_t>(i)].data.ptr));
    }
}

bool consumers_ready(const ConsumerGroup& group) {
    for (const Consumer& consumer : group.all) {
        if (!consumer.ready) {
            return false;
        }
    }
    return true;
}

int64_t consumers_into_window(const ConsumerWindow& window, int64_t epoch) {
    return (epoch - window.begin + kMsPerDay) % kMsPerDay;
}

std::optional<int64_t> consumers_epoch(std::string_view line) {
    if (is_sentence(line, "RMC")) {
        return time_of(line.substr(7));
    }
    const size_t time = is_report(line, "TPV") ? line.find("\"time\":\"") : std::string_view::npos;
    const size_t clock = time == std::string_view::npos ? time : line.find('T', time);
    return clock == std::string_view::npos ? std::nullopt : time_of(line.substr(clock + 1));
}
