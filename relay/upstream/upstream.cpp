#include "upstream/upstream.h"

#include "hub/hub.h"
#include "system/event_guard.h"
#include "upstream/upstream_socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr char kBannerBegin[] = "TAVOR Version:";
constexpr std::chrono::milliseconds kFullPause{20}; // of the daemon's queue
// Datagrams read in one go: more than a burst of the daemon has. What waits in the kernel is bounded by the
// daemon's send buffer.
constexpr int kReadsMax = 1024;
constexpr int kReadsAtOnce = 32; // by one call of the kernel
// From the first datagram until what has come is read. The daemon sends an epoch within a few hundred
// microseconds: read one by one its sentences would cost a wake-up and a send to each TCP client each. The
// loop sleeps through it: everybody may have to wait ten times as long for a turn, and a timer in its place
// takes a tenth of what a burst costs with one consumer.
constexpr timespec kGather = {0, 500000};
constexpr int kLooks = 2; // a second, for the daemon
// Unread for longer than a turn of the loop takes as a rule: the relay itself was held up.
constexpr std::chrono::milliseconds kUnreadMax{100};

struct UpstreamState {
    event_base* base = nullptr;
    UpstreamSettings settings;
    int fd = -1;
    bool connected = false;
    bool was_connected = false;
    EndpointFile reached;
    RelayClock::time_point heard;
    std::string banner = TAVOR_VERSION_BANNER;
    std::vector<std::function<void(bool)>> watchers;
    EventPtr readable;
    EventPtr look;
    EventPtr send;
    std::vector<UpstreamAnswer> refused; // requests that found no place
    EventPtr refuse;
};

UpstreamState state;

void tell_watchers() {
    for (const auto& changed : state.watchers) {
        changed(state.connected);
    }
}

// What has come before the socket was connected may be anybody's; of the daemon nothing was asked yet. Now
// that it is connected the kernel lets nobody else send.
void drop_unread() {
    char byte = 0;
    while (recv(state.fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0) {
        ++hub_counters().malformed;
    }
}

void found() {
    printf("tavor-relay: the daemon is there\n");
    drop_unread();
    event_add(state.readable.get(), nullptr);
    hub_counters().daemon_restarts += state.was_connected ? 1 : 0;
    state.connected = true;
    state.was_connected = true;
    state.heard = RelayClock::now();
    tell_watchers();
}

void lost() {
    if (!state.connected) {
        return;
    }
    printf("tavor-relay: the daemon is gone\n");
    event_del(state.readable.get());
    state.connected = false;
    upstream_requests_lost();
    tell_watchers();
}

// Whether the datagram is the line that each start brings. It is kept for those who request start later.
bool take_banner(const tavor_response& datagram) {
    const bool is_banner = memcmp(datagram.payload, kBannerBegin, strlen(kBannerBegin)) == 0;
    if (datagram.code != TAVOR_CODE_NMEA || !is_banner) {
        return false;
    }
    const auto* const text = reinterpret_cast<const char*>(datagram.payload);
    state.banner.assign(text, strnlen(text, sizeof datagram.payload));
    return true;
}

// None when the daemon may have had to wait with this datagram, or the clock was set meanwhile.
std::optional<HubTime> good_arrival(HubTime arrived, HubTime now) {
    const auto unread = now - arrived;
    const bool good = unread >= unread.zero() && unread <= kUnreadMax;
    return good ? std::optional(arrived) : std::nullopt;
}

void take(const tavor_response& datagram, size_t size, HubTime arrived, HubTime now) {
    if (size != sizeof datagram) {
        ++hub_counters().malformed;
        return;
    }
    state.heard = RelayClock::now();
    if (!upstream_requests_answered(datagram) && !take_banner(datagram)) {
        hub_put(datagram, good_arrival(arrived, now));
    }
}

// The request whose turn it is, and a stop that goes out beside it.
void send_next() {
    const tavor_request* request = nullptr;
    while (state.connected && (request = upstream_requests_next()) != nullptr) {
        if (send(state.fd, request, sizeof *request, MSG_NOSIGNAL) >= 0) {
            upstream_requests_sent();
        } else if (errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM) {
            return event_arm(state.send, kFullPause);
        } else {
            return lost();
        }
    }
}

// Reads what has come. Returns whether there may be more.
bool read_some() {
    static std::array<tavor_response, kReadsAtOnce> datagrams;
    std::array<iovec, kReadsAtOnce> parts = {};
    std::array<UpstreamControl, kReadsAtOnce> controls = {};
    std::array<mmsghdr, kReadsAtOnce> messages = {};
    for (size_t i = 0; i < messages.size(); ++i) {
        parts[i] = {&datagrams[i], sizeof datagrams[i]};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = controls[i].bytes;
        messages[i].msg_hdr.msg_controllen = sizeof controls[i].bytes;
    }
    const int count = recvmmsg(state.fd, messages.data(), kReadsAtOnce, MSG_DONTWAIT | MSG_TRUNC, nullptr);
    const HubTime now = std::chrono::system_clock::now();
    for (size_t i = 0; i < static_cast<size_t>(std::max(count, 0)); ++i) {
        take(datagrams[i], messages[i].msg_len, upstream_socket_arrival(messages[i].msg_hdr), now);
    }
    return count == kReadsAtOnce;
}

void on_readable(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    nanosleep(&kGather, nullptr);
    for (int i = 0; i < kReadsMax / kReadsAtOnce && read_some(); ++i) {
    }
    hub_hand_out();
    send_next();
}

void on_send(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    send_next();
}

// A daemon that has said something since the look before is there: its socket need not be looked at.
UpstreamPresence look() {
    const bool heard = state.connected && RelayClock::now() - state.heard < state.settings.second / kLooks;
    return heard ? UpstreamPresence::kSame
                 : upstream_socket_reach(state.fd, state.settings.path, state.reached);
}

void on_look(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    const UpstreamPresence presence = look();
    if (presence != UpstreamPresence::kSame) {
        lost();
    }
    if (presence != UpstreamPresence::kGone && !state.connected) {
        found();
    }
    upstream_requests_expire(state.connected);
    send_next();
}

void on_refuse(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    for (const UpstreamAnswer& answer : std::exchange(state.refused, {})) {
        answer(TAVOR_VALUE_FAILED);
    }
}

EventPtr make_event(int fd, short what, event_callback_fn call) {
    return EventPtr(event_new(state.base, fd, what, call, nullptr));
}

} // namespace

bool upstream_open(event_base* base, const UpstreamSettings& settings) {
    state = {};
    state.base = base;
    state.settings = settings;
    state.fd = upstream_socket_open();
    if (state.fd < 0) {
        return false;
    }
    upstream_requests_open(settings.second);
    state.readable = make_event(state.fd, EV_READ | EV_PERSIST, on_readable);
    event_priority_set(state.readable.get(), kPriorityUpstream);
    state.look = make_event(-1, EV_PERSIST, on_look);
    event_arm(state.look, settings.second / kLooks);
    state.send = make_event(-1, 0, on_send);
    state.refuse = make_event(-1, 0, on_refuse);
    event_active(state.look.get(), 0, 0);
    return true;
}

void upstream_close() {
    upstream_requests_open(state.settings.second);
    const int fd = state.fd;
    state = {};
    if (fd >= 0) {
        close(fd);
    }
}

void upstream_request(uint32_t type, std::string_view text, UpstreamAnswer answer) {
    UpstreamAnswer kept = answer;
    if (!upstream_requests_add(type, text, std::move(answer))) {
        state.refused.push_back(std::move(kept));
        event_active(state.refuse.get(), 0, 0);
    }
    event_active(state.send.get(), 0, 0);
}

void upstream_watch(std::function<void(bool)> changed) {
    state.watchers.push_back(std::move(changed));
}

bool upstream_connected() {
    return state.connected;
}

RelayClock::time_point upstream_heard() {
    return state.heard;
}

std::string_view upstream_banner() {
    return state.banner;
}
