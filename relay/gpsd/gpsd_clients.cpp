#include "gpsd/gpsd_clients.h"

#include "gpsd/gpsd_command.h"
#include "hub/hub.h"
#include "system/seldom.h"
#include "upstream/positioning.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t kWaitingMax = size_t{64} * 1024;
constexpr size_t kGatherMax = size_t{16} * 1024; // bytes that wait for more although they could be sent
constexpr size_t kLinesMax = 32;                 // that are sent at a time
constexpr int kPatienceS = 30;
constexpr int kIdleS = 15 * 60;
constexpr int kKernelBuffer = 16 * 1024; // each way; the kernel takes twice
constexpr int kKeepAliveS = 60;          // of silence before the kernel looks for the other end
constexpr int kProbeS = 30;              // before it looks again
constexpr int kUnansweredMs = 60000;     // then it gives up
constexpr size_t kReadSize = 4096;

struct ClientsState {
    event_base* base = nullptr;
    std::chrono::milliseconds second{1000};
    GpsdReader reader;
    std::list<GpsdClient> clients;
    size_t clients_max = 0;
    Seldom let_go;
    EventPtr look;
};

ClientsState state;

void want(int change) {
    hub_counters().tcp_consumers += static_cast<uint64_t>(change);
    positioning_want(change);
}

void drop_oldest(GpsdClient& client, size_t room) {
    auto one = client.waiting.begin() + (client.sent > 0 ? 1 : 0); // never the rest of a line
    while (one != client.waiting.end() && client.waiting_size + room > kWaitingMax) {
        if (one->is_answer) {
            ++one;
            continue;
        }
        client.waiting_size -= one->text->size();
        one = client.waiting.erase(one);
        ++hub_counters().dropped_tcp;
    }
}

void take_off(GpsdClient& client, size_t sent) {
    client.sent += sent;
    while (!client.waiting.empty() && client.sent >= client.waiting.front().text->size()) {
        const GpsdLine& line = client.waiting.front();
        client.sent -= line.text->size();
        client.waiting_size -= line.text->size();
        client.answers -= line.is_answer ? 1 : 0;
        client.waiting.pop_front();
    }
}

// Hands the kernel the oldest lines. Returns the bytes that it took, -1 with errno set.
ssize_t send_lines(const GpsdClient& client) {
    std::array<iovec, kLinesMax> parts = {};
    const size_t count = std::min(client.waiting.size(), parts.size());
    for (size_t i = 0; i < count; ++i) {
        const std::string& text = *client.waiting[i].text;
        const size_t begin = i == 0 ? client.sent : 0;
        parts[i] = {const_cast<char*>(text.data()) + begin, text.size() - begin};
    }
    msghdr message = {};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    return sendmsg(client.fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void set_full(GpsdClient& client, bool full) {
    if (full && !client.full) {
        event_add(client.writable.get(), nullptr);
    } else if (!full && client.full) {
        event_del(client.writable.get());
    }
    client.full = full;
}

void flush(GpsdClient& client) {
    while (!client.gone && !client.waiting.empty()) {
        const ssize_t sent = send_lines(client);
        if (sent < 0) {
            client.gone = errno != EAGAIN && errno != EINTR && errno != ENOBUFS;
            break;
        }
        client.taken = std::chrono::steady_clock::now();
        take_off(client, static_cast<size_t>(sent));
    }
    set_full(client, !client.waiting.empty());
}

// Reads on only when all answers are sent: one that asks and does not read is not asked for more.
void read_or_pause(GpsdClient& client) {
    state.reader(client);
    if (client.answers > 0) {
        event_del(client.readable.get());
    } else if (!client.gone) {
        event_add(client.readable.get(), nullptr);
    }
}

void on_readable(evutil_socket_t fd, short /*unused*/, void* one) {
    GpsdClient& client = *static_cast<GpsdClient*>(one);
    std::array<char, kReadSize> bytes = {};
    const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size > 0) {
        client.heard = std::chrono::steady_clock::now();
        client.input.append(bytes.data(), static_cast<size_t>(size));
        read_or_pause(client);
    } else {
        client.gone = client.gone || size == 0 || (errno != EAGAIN && errno != EINTR);
    }
    gpsd_clients_tidy();
}

void on_writable(evutil_socket_t /*unused*/, short /*unused*/, void* one) {
    GpsdClient& client = *static_cast<GpsdClient*>(one);
    flush(client);
    if (client.answers == 0) {
        read_or_pause(client);
    }
    gpsd_clients_tidy();
}

void let_go(GpsdClient& client, const char* why) {
    client.gone = true;
    ++hub_counters().let_go;
    if (const auto more = seldom(state.let_go, std::chrono::steady_clock::now())) {
        printf("tavor-relay: a TCP client is let go that %s (%d more before)\n", why, *more);
    }
}

// The oldest that watches nothing goes. The newest goes only when all watch, so of those who watch only the
// one that came last can lose its place to a newcomer.
void make_place() {
    const auto oldest = std::find_if(state.clients.begin(), state.clients.end(),
                                     [](const GpsdClient& client) { return !client.watch.enable; });
    let_go(oldest == state.clients.end() ? state.clients.back() : *oldest, "makes way for another");
    gpsd_clients_tidy();
}

void on_look(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    const auto now = std::chrono::steady_clock::now();
    for (GpsdClient& client : state.clients) {
        if (!client.waiting.empty() && now - client.taken >= kPatienceS * state.second) {
            let_go(client, "does not read");
        } else if (!client.watch.enable && now - client.heard >= kIdleS * state.second) {
            let_go(client, "neither watches nor asks");
        }
    }
    gpsd_clients_tidy();
}

void set_option(int fd, int level, int name, int value) {
    setsockopt(fd, level, name, &value, sizeof value);
}

} // namespace

void gpsd_clients_open(event_base* base, std::chrono::milliseconds second, GpsdReader reader,
                       size_t clients_max) {
    state = {};
    state.clients_max = clients_max;
    state.base = base;
    state.second = second;
    state.reader = std::move(reader);
    state.look.reset(event_new(base, -1, EV_PERSIST, on_look, nullptr));
    event_arm(state.look, second);
}

void gpsd_clients_close() {
    for (GpsdClient& client : state.clients) {
        close(client.fd);
    }
    state = {};
}

GpsdClient& gpsd_clients_add(int fd) {
    if (state.clients.size() >= state.clients_max) {
        make_place();
    }
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveS);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, kProbeS);
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnansweredMs);
    set_option(fd, SOL_SOCKET, SO_SNDBUF, kKernelBuffer);
    set_option(fd, SOL_SOCKET, SO_RCVBUF, kKernelBuffer);
    GpsdClient& client = state.clients.emplace_back();
    client.fd = fd;
    client.heard = std::chrono::steady_clock::now();
    client.readable.reset(event_new(state.base, fd, EV_READ | EV_PERSIST, on_readable, &client));
    client.writable.reset(event_new(state.base, fd, EV_WRITE | EV_PERSIST, on_writable, &client));
    event_add(client.readable.get(), nullptr);
    return client;
}

void gpsd_clients_send(GpsdClient& client, GpsdLine line) {
    if (client.gone) {
        return;
    }
    const size_t size = line.text->size();
    if (client.waiting.empty()) {
        client.taken = std::chrono::steady_clock::now();
    }
    drop_oldest(client, size);
    client.waiting_size += size;
    client.answers += line.is_answer ? 1 : 0;
    const bool is_answer = line.is_answer;
    client.waiting.push_back(std::move(line));
    if (is_answer) {
        set_full(client, true);
    } else if (client.waiting_size > kGatherMax && !client.full) {
        flush(client);
    }
}

void gpsd_clients_each(const std::function<void(GpsdClient& client)>& call) {
    for (GpsdClient& client : state.clients) {
        call(client);
    }
}

void gpsd_clients_flush() {
    for (GpsdClient& client : state.clients) {
        if (!client.waiting.empty() && !client.full) {
            flush(client);
        }
    }
    gpsd_clients_tidy();
}

void gpsd_clients_watch(GpsdClient& client, const GpsdWatch& watch) {
    const bool was = client.watch.enable;
    client.watch = watch;
    if (was != watch.enable) {
        want(watch.enable ? +1 : -1);
    }
}

void gpsd_clients_tidy() {
    for (auto one = state.clients.begin(); one != state.clients.end();) {
        if (one->gone) {
            gpsd_clients_watch(*one, {});
            const int fd = one->fd;
            one = state.clients.erase(one); // its events before its descriptor
            close(fd);
        } else {
            ++one;
        }
    }
}

size_t gpsd_clients_count() {
    return state.clients.size();
}
