#include "debug/location_debug_tasks.h"

#include "base/cancel_hold.h"
#include "debug/location_debug_clients.h"
#include "debug/location_debug_queue.h"
#include "debug/location_debug_serial.h"
#include "device/location_socket_server.h"
#include "device/location_uart.h"
#include "mux/location_serial_port.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint32_t kReceiveBufferSize = 256;
constexpr int kEventsPerWait = 10;
constexpr useconds_t kIdlePauseUs = 300'000; // after a read or accept that gave nothing

// Kept: the count of the last read stays, so what was typed last goes to the chip again when a round only
// accepts a client. Of several clients that sent data in one round only the one read last is heard.
struct ReceiveState {
    uint8_t buffer[kReceiveBufferSize];
    int32_t count;
    bool forwards; // whether this round accepted or read something
};

// In pieces, because an escaped write is cut at its limit.
void write_to_line(const uint8_t* data, uint32_t length) {
    for (uint32_t done = 0; done < length; done += kUartEscapedWriteMax) {
        location_debug_serial_write(data + done, std::min(kUartEscapedWriteMax, length - done));
    }
}

void write_to_outlet(const DebugOutlet* outlet, const DebugBlock* block) {
    const uint8_t* const data = location_debug_block_data(block);
    if (outlet->mode == DEBUG_MODE_SERIAL) {
        write_to_line(data, block->length);
    }
    if (outlet->mode == DEBUG_MODE_TCP) {
        location_debug_clients_write(data, block->length);
    }
}

void forward_to_chip(const ReceiveState* receive) {
    if (receive->count >= 1) {
        location_serial_port_gnss_write(receive->buffer, static_cast<uint32_t>(receive->count));
    }
}

void serve_line(ReceiveState* receive) {
    receive->count = location_debug_serial_read(receive->buffer, kReceiveBufferSize);
    if (receive->count < 1) {
        usleep(kIdlePauseUs); // a line that hung up gives nothing for ever
        return;
    }
    forward_to_chip(receive);
}

// Returns false when no client came.
bool accept_client(ReceiveState* receive, const DebugOutlet* outlet) {
    location_debug_clients_sweep(); // may give back the descriptor that the accept needs
    const int32_t fd = location_socket_server_accept_new_tcp_connect(outlet->listen_fd);
    if (fd < 0) {
        puts("[LOCSERV] ERR: [debug]location_debug_rx_task, accept fail");
        return false;
    }
    location_debug_clients_admit(outlet->epoll_fd, fd);
    receive->forwards = true;
    return true;
}

void read_client(ReceiveState* receive, const DebugOutlet* outlet, int32_t fd) {
    const auto count = static_cast<int32_t>(recv(fd, receive->buffer, kReceiveBufferSize, MSG_DONTWAIT));
    if (count < 0 && errno == EAGAIN) {
        return; // woken for nothing
    }
    receive->count = count;
    receive->forwards = true;
    if (count < 1) {
        location_debug_clients_drop(outlet->epoll_fd, fd);
    }
}

// Returns false when the event would wake the task again at once: a client that could not be accepted, or a
// descriptor that is no client's, such as a server socket that does not listen.
bool serve_event(ReceiveState* receive, const DebugOutlet* outlet, const epoll_event& event) {
    const int32_t fd = event.data.fd;
    if (fd == outlet->listen_fd && (event.events & EPOLLIN) != 0) {
        return accept_client(receive, outlet);
    }
    if (!location_debug_clients_have(fd)) {
        printf("[LOCSERV] ERR: [debug]unexpected fd=%d coming\n", fd);
        return false;
    }
    if ((event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
        read_client(receive, outlet, fd);
    }
    return true;
}

// Nothing waits in here, so cancellation is held off and no socket is lost between two steps.
bool serve_events(ReceiveState* receive, const DebugOutlet* outlet, const epoll_event* events, int count) {
    const CancelHold hold;
    bool all_served = true;
    receive->forwards = false;
    for (int i = 0; i < count; ++i) {
        all_served = serve_event(receive, outlet, events[i]) && all_served;
    }
    return all_served;
}

// Returns false when the epoll set failed.
bool serve_clients(ReceiveState* receive, const DebugOutlet* outlet) {
    epoll_event events[kEventsPerWait];
    const int count = epoll_wait(outlet->epoll_fd, events, kEventsPerWait, -1);
    if (count < 0) {
        const int error = errno;
        if (error == EINTR) {
            return true;
        }
        printf("[LOCSERV] ERR: [debug]location_debug_rx_task, epoll_wait failed reason=[%s]%d\n",
               strerror(error), error);
        return false;
    }
    const bool all_served = serve_events(receive, outlet, events, count);
    if (receive->forwards) {
        forward_to_chip(receive);
    }
    if (!all_served) {
        usleep(kIdlePauseUs); // what woke the task is still there
    }
    return true;
}

} // namespace

void* location_debug_tx_task(void* argument) {
    const auto* const outlet = static_cast<const DebugOutlet*>(argument);
    puts("[LOCSERV] INF: [debug]location_debug_tx_task");
    while (true) {
        const DebugBlockPtr block = location_debug_queue_receive();
        if (block) {
            write_to_outlet(outlet, block.get());
        }
    }
}

void* location_debug_rx_task(void* argument) {
    const auto* const outlet = static_cast<const DebugOutlet*>(argument);
    puts("[LOCSERV] INF: [debug]location_debug_rx_task");
    ReceiveState receive{};
    while (true) {
        switch (outlet->mode) {
        case DEBUG_MODE_SERIAL:
            serve_line(&receive);
            break;
        case DEBUG_MODE_TCP:
            if (!serve_clients(&receive, outlet)) {
                return nullptr;
            }
            break;
        default:
            usleep(kIdlePauseUs);
            break;
        }
    }
}
