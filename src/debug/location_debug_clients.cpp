#include "debug/location_debug_clients.h"

#include "base/cancel_hold.h"
#include "device/location_epoll.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <linux/sockios.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// What is sent to one client.
struct ClientOutput {
    std::string rest;     // of a block of which it took a part
    uint32_t dropped = 0; // blocks since it could not take one; 0 while it keeps up
};

// No peer is waited for under the lock: sends and closes return at once. A line of the log may wait for its
// reader. Nobody is cancelled under the lock.
struct ClientsState {
    std::mutex lock;
    DebugClientList list;
    std::map<int32_t, ClientOutput> outputs; // of the listed clients, by their descriptors
    std::vector<int32_t> kept;               // sockets of the clients of closed outlets
} state;

// Stores the new number of clients; returns false when there are too many.
bool list_client(int32_t fd, int32_t* count) {
    const std::lock_guard guard(state.lock);
    const bool listed = location_debug_add_client(&state.list, fd) == 0;
    *count = state.list.count;
    return listed;
}

// Sends without waiting. Returns the bytes taken, and a client that is gone takes them all: the receive task
// is about to drop it.
size_t send_now(int32_t fd, const void* data, size_t length) {
    const ssize_t sent = send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN ? 0 : length;
    }
    return static_cast<size_t>(sent);
}

bool has_taken_all(int32_t fd) {
    int unsent = 0;
    return ioctl(fd, SIOCOUTQ, &unsent) == 0 && unsent == 0;
}

// Whether the peer has closed or reset the connection, however much of what it sent is unread. One that
// closed only its sending side looks just the same, and counts as gone here as it does while it is listed.
bool peer_is_gone(int32_t fd) {
    pollfd peer{.fd = fd, .events = POLLRDHUP, .revents = 0};
    return poll(&peer, 1, 0) == 1;
}

void drop_block(int32_t fd, ClientOutput* output) {
    if (output->dropped++ == 0) {
        printf("[LOCSERV] WRN: [debug]socket AT client fd=[%d] is too slow, blocks are dropped\n", fd);
    }
}

void tell_loss_ended(int32_t fd, ClientOutput* output) {
    if (const uint32_t blocks = std::exchange(output->dropped, 0); blocks != 0) {
        printf("[LOCSERV] INF: [debug]socket AT client fd=[%d], %u blocks dropped\n", fd, blocks);
    }
}

// A client gets whole blocks, so the rest of one that it took in part goes first. One that could not take a
// block gets none until it has taken all that was sent to it.
void write_to_client(int32_t fd, ClientOutput* output, const uint8_t* data, size_t length) {
    if (output->dropped != 0 && !has_taken_all(fd)) {
        drop_block(fd, output);
        return;
    }
    output->rest.erase(0, send_now(fd, output->rest.data(), output->rest.size()));
    const size_t sent = output->rest.empty() ? send_now(fd, data, length) : 0;
    if (sent == 0) {
        drop_block(fd, output);
        return;
    }
    output->rest.assign(reinterpret_cast<const char*>(data) + sent, length - sent);
    tell_loss_ended(fd, output);
}

} // namespace

int32_t location_debug_add_client(DebugClientList* list, int32_t fd) {
    if (list->count >= kDebugClientMax) {
        printf("[LOCSERV] ERR: location_debug_add_client, %d >= %d\n", list->count, kDebugClientMax);
        return -1;
    }
    list->fds[list->count++] = fd;
    return 0;
}

int32_t location_debug_del_client(DebugClientList* list, int32_t fd) {
    int32_t* const end = list->fds + list->count;
    int32_t* const found = std::find(list->fds, end, fd);
    if (found == end) {
        return -1;
    }
    std::copy(found + 1, end, found);
    --list->count;
    return 0;
}

int32_t location_debug_find_client(const DebugClientList* list, int32_t fd) {
    const int32_t* const end = list->fds + list->count;
    return std::find(list->fds, end, fd) == end ? -1 : 0;
}

void location_debug_clients_init() {
    const std::lock_guard guard(state.lock);
    state.list = {};
    state.outputs.clear();
}

void location_debug_clients_admit(int32_t epfd, int32_t fd) {
    const CancelHold hold;
    int32_t count = 0;
    if (location_epoll_add_fd(epfd, fd, EPOLLIN) != 0 || !list_client(fd, &count)) {
        close(fd); // which takes it out of the set, too
        return;
    }
    printf("[LOCSERV] INF: [debug]socket AT new client connected fd=[%d] list num=[%d]\n", fd, count);
}

void location_debug_clients_drop(int32_t epfd, int32_t fd) {
    const CancelHold hold;
    location_epoll_remove_fd(epfd, fd);
    const std::lock_guard guard(state.lock);
    tell_loss_ended(fd, &state.outputs[fd]);
    state.outputs.erase(fd);
    location_debug_del_client(&state.list, fd);
    close(fd);
}

// Kept: clients of a closed outlet see silence and no end of the connection, so their sockets stay open. The
// keepalive probes find peers that vanished without a word.
void location_debug_clients_forget(int32_t epfd) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    for (int32_t i = 0; i < state.list.count; ++i) {
        const int32_t fd = state.list.fds[i];
        location_epoll_remove_fd(epfd, fd);
        tell_loss_ended(fd, &state.outputs[fd]);
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        state.kept.push_back(fd);
    }
    state.outputs.clear();
    state.list = {};
}

void location_debug_clients_sweep() {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    const auto gone =
        std::partition(state.kept.begin(), state.kept.end(), [](int32_t fd) { return !peer_is_gone(fd); });
    std::for_each(gone, state.kept.end(), close);
    state.kept.erase(gone, state.kept.end());
}

bool location_debug_clients_have(int32_t fd) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    return location_debug_find_client(&state.list, fd) == 0;
}

void location_debug_clients_write(const uint8_t* data, size_t length) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    for (int32_t i = 0; i < state.list.count; ++i) {
        const int32_t fd = state.list.fds[i];
        write_to_client(fd, &state.outputs[fd], data, length);
    }
}
