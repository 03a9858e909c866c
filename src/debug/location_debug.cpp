#include "debug/location_debug.h"

#include "config/location_config.h"
#include "debug/location_debug_clients.h"
#include "debug/location_debug_log.h"
#include "debug/location_debug_queue.h"
#include "debug/location_debug_serial.h"
#include "debug/location_debug_tasks.h"
#include "device/location_epoll.h"
#include "device/location_socket_server.h"

#include <atomic>
#include <cstdio>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kEpollSizeHint = 10;

struct DebugThread {
    pthread_t id;
    bool exists;
};

struct DebugPortState {
    DebugOutlet outlet;
    DebugThread tx;
    DebugThread rx;
    std::atomic<uint32_t> dropped; // blocks since the outlet could not take one; 0 while it keeps up
} state{
    .outlet = {.mode = DEBUG_MODE_OFF, .listen_fd = -1, .epoll_fd = -1}, .tx = {}, .rx = {}, .dropped = 0};

bool has_threads(uint32_t mode) {
    return mode == DEBUG_MODE_SERIAL || mode == DEBUG_MODE_TCP;
}

// Returns the failing result of close, else 0.
int32_t close_fd(std::atomic<int32_t>* fd) {
    int32_t value = *fd;
    const int32_t result = location_debug_close_fd(&value);
    *fd = value;
    return result;
}

int32_t open_listen_socket() {
    DebugSocketConfig config{};
    location_config_get_debug_socket(&config);
    const int32_t fd = location_socket_server_create_tcp(config.ip, static_cast<uint16_t>(config.port));
    if (fd < 0) {
        if (close_fd(&state.outlet.epoll_fd) != 0) {
            puts("[LOCSERV] ERR: [debug]location_debug_start close epfd fail");
        }
        return -1;
    }
    state.outlet.listen_fd = fd;
    location_epoll_add_fd(state.outlet.epoll_fd, fd, EPOLLIN);
    return 0;
}

int32_t open_server() {
    if (state.outlet.epoll_fd == -1) {
        state.outlet.epoll_fd = epoll_create(kEpollSizeHint);
        if (state.outlet.epoll_fd == -1) {
            puts("[LOCSERV] ERR: [debug]location_debug_start epoll_create fail");
            return -1;
        }
    }
    return state.outlet.listen_fd == -1 ? open_listen_socket() : 0;
}

void close_server() {
    location_debug_clients_forget(state.outlet.epoll_fd);
    if (state.outlet.listen_fd != -1) {
        location_epoll_remove_fd(state.outlet.epoll_fd, state.outlet.listen_fd);
    }
    close_fd(&state.outlet.listen_fd);
    close_fd(&state.outlet.epoll_fd);
}

int32_t start_tx_thread() {
    if (state.tx.exists) {
        puts("[LOCSERV] INF: [debug]location_debug_start, tx tid exist");
        return 0;
    }
    if (pthread_create(&state.tx.id, nullptr, location_debug_tx_task, &state.outlet) != 0) {
        puts("[LOCSERV] ERR: [debug]location_debug_start, tx thread create fail");
        return -1;
    }
    state.tx.exists = true;
    return 0;
}

int32_t start_rx_thread() {
    if (state.rx.exists) {
        puts("[LOCSERV] INF: [debug]location_debug_start, rx tid exist");
        return 0;
    }
    if (pthread_create(&state.rx.id, nullptr, location_debug_rx_task, &state.outlet) != 0) {
        puts("[LOCSERV] ERR: [debug]location_debug_start, rx thread create fail");
        return -1;
    }
    state.rx.exists = true;
    return 0;
}

// Returns false when the thread could not be stopped.
bool stop_thread(DebugThread* thread) {
    if (!thread->exists) {
        return true;
    }
    if (pthread_cancel(thread->id) != 0) {
        puts("[LOCSERV] ERR: [IO]location_debug_close, fail");
        return false;
    }
    pthread_join(thread->id, nullptr);
    thread->exists = false;
    return true;
}

// The threads go first: no descriptor is closed while one of them uses it, and neither meets a half-emptied
// client list. An outlet that is still in use stays open.
void close_threaded_outlet(uint32_t mode) {
    const bool tx_stopped = stop_thread(&state.tx);
    location_debug_queue_close();
    const bool rx_stopped = stop_thread(&state.rx);
    if (!tx_stopped || !rx_stopped) {
        return;
    }
    if (mode == DEBUG_MODE_TCP) {
        close_server();
    } else {
        location_debug_serial_deinit();
    }
}

void tell_loss_ended() {
    if (const uint32_t blocks = state.dropped.exchange(0); blocks != 0) {
        printf("[LOCSERV] INF: [debug]location_debug_handle, %u blocks dropped\n", blocks);
    }
}

// Never waits: the receive thread feeds the service.
void hand_over(const uint8_t* data, uint32_t length) {
    if (!location_debug_queue_is_open()) {
        puts("[LOCSERV] ERR: [debug] location_debug_handle, msgid is -1");
        return;
    }
    DebugBlockPtr block = location_debug_block_copy(data, length);
    if (!block) {
        puts("[LOCSERV] ERR: [debug] location_debug_handle, malloc fail");
        return;
    }
    if (location_debug_queue_send(std::move(block))) {
        tell_loss_ended();
    } else if (state.dropped++ == 0) {
        puts("[LOCSERV] ERR: [debug]location_debug_handle, send Fail!");
    }
}

} // namespace

void location_debug_init() {
    state.outlet.mode = DEBUG_MODE_OFF;
    state.outlet.listen_fd = -1;
    state.outlet.epoll_fd = -1;
    location_debug_clients_init();
    location_debug_queue_init();
}

int32_t location_debug_start() {
    const uint32_t mode = state.outlet.mode;
    if (mode == DEBUG_MODE_FILE) {
        return location_debug_log_open();
    }
    if (!has_threads(mode)) {
        return 0;
    }
    const int32_t opened = mode == DEBUG_MODE_TCP ? open_server() : location_debug_serial_init();
    if (opened < 0 || location_debug_queue_open() != 0 || start_tx_thread() != 0) {
        return -1;
    }
    return start_rx_thread();
}

void location_debug_close() {
    const uint32_t mode = state.outlet.mode;
    if (mode == DEBUG_MODE_FILE) {
        location_debug_log_close();
    }
    if (has_threads(mode)) {
        close_threaded_outlet(mode);
        tell_loss_ended();
    }
    location_debug_clients_sweep();
}

void location_debug_stop() {
    location_debug_close();
    state.outlet.mode = DEBUG_MODE_OFF;
}

int32_t location_debug_set_mode(uint32_t mode) {
    if (mode == state.outlet.mode) {
        return 0;
    }
    location_debug_close();
    state.outlet.mode = mode;
    return location_debug_start();
}

void location_debug_handle(const uint8_t* data, uint32_t length) {
    switch (state.outlet.mode) {
    case DEBUG_MODE_FILE:
        location_debug_log_write(data, length);
        break;
    case DEBUG_MODE_SERIAL:
    case DEBUG_MODE_TCP:
        hand_over(data, length);
        break;
    default:
        break;
    }
}

int32_t location_debug_close_fd(int32_t* fd) {
    if (*fd == -1 || *fd == -2) { // Kept: both count as closed
        return 0;
    }
    const int32_t result = close(*fd);
    if (result == 0) {
        *fd = -1;
    }
    return result;
}
