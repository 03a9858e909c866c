#include "debug/location_debug_clients.h"

#include "base/cancel_hold.h"
#include "device/location_epoll.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// No peer is waited for under the lock: sends and closes return at once. A line of the log may wait for its
// reader. Nobody is cancelled under the lock.
struct ClientsState {
    std::mutex lock;
    DebugClientList list;
} state;

// Stores the new number of clients; returns false when there are too many.
bool list_client(int32_t fd, int32_t* count) {
    const std::lock_guard guard(state.lock);
    const bool listed = location_debug_add_client(&state.list, fd) == 0;
    *count = state.list.count;
    return listed;
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
}

void location_debug_clients_admit(int32_t epfd, int32_t fd) {
    const CancelHold hold;
    int32_t count = 0;
    if (!list_client(fd, &count)) {
        close(fd);
        return;
    }
    location_epoll_add_fd(epfd, fd, EPOLLIN);
    printf("[LOCSERV] INF: [debug]socket AT new client connected fd=[%d] list num=[%d]\n", fd, count);
}

void location_debug_clients_drop(int32_t epfd, int32_t fd) {
    const CancelHold hold;
    location_epoll_remove_fd(epfd, fd);
    const std::lock_guard guard(state.lock);
    close(fd);
    location_debug_del_client(&state.list, fd);
}

void location_debug_clients_forget(int32_t epfd) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    for (int32_t i = 0; i < state.list.count; ++i) {
        location_epoll_remove_fd(epfd, state.list.fds[i]);
    }
    state.list = {}; // kept: the sockets stay open, a client sees silence and no end of the connection
}

bool location_debug_clients_have(int32_t fd) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    return location_debug_find_client(&state.list, fd) == 0;
}

void location_debug_clients_write(const uint8_t* data, uint64_t length) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    for (int32_t i = 0; i < state.list.count; ++i) {
        send(state.list.fds[i], data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}
