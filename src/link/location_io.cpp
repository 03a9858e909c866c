#include "link/location_io.h"

#include "debug/location_debug.h"
#include "mux/location_serial_port.h"
#include "nmea/location_frame.h"
#include "queue/service_queue.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr uint32_t kReceiveBufferSize = 15360; // bytes; a longer frame can't be received
constexpr useconds_t kIdlePollUs = 300000;

struct ReceiveState {
    uint8_t buffer[kReceiveBufferSize]; // of the receive thread alone
    uint32_t fill;                      // bytes in it
    pthread_t tid;                      // 0 when there is no thread to join
    std::atomic<bool> ended;            // the link could not be opened: there is nothing but the join left
} state;

// Drops a buffer that is full without holding a complete frame.
void drop_full_buffer() {
    location_io_data_handle(FRAME_NONE, state.buffer, static_cast<int32_t>(kReceiveBufferSize));
    state.fill = 0;
}

// Moves what no frame has used to the buffer's start.
void compact(uint32_t used) {
    state.fill -= used;
    if (used > 0 && state.fill > 0) {
        memmove(state.buffer, state.buffer + used, state.fill);
    }
}

// Hands on every complete frame. The buffer is compacted once after the last of them, not at each.
void hand_on_frames() {
    uint32_t head = 0;
    uint32_t type = FRAME_NONE;
    while (const uint32_t used = location_io_frame_parse(state.buffer + head, state.fill - head, &type)) {
        location_io_data_handle(type, state.buffer + head, static_cast<int32_t>(used));
        head += used;
    }
    compact(head);
    if (state.fill == kReceiveBufferSize) {
        drop_full_buffer();
    }
}

void take_in(int32_t received) {
    const uint32_t room = kReceiveBufferSize - state.fill;
    const auto n = static_cast<uint32_t>(received);
    const uint8_t* fresh = state.buffer + state.fill;
    state.fill += n;
    location_debug_handle(fresh, std::min(n, room));
    if (state.fill > kReceiveBufferSize) {
        printf("[LOCSERV] ERR: [IO] location_io_rx_task, read len wrong:%d, %d\n", received,
               static_cast<int32_t>(state.fill));
        state.fill = kReceiveBufferSize;
    }
}

void join_thread() {
    pthread_join(state.tid, nullptr);
    state.tid = 0;
    state.ended = false;
}

} // namespace

int32_t location_io_thread_init() {
    if (state.ended) {
        join_thread();
    }
    if (state.tid != 0) {
        puts("[LOCSERV] INF: [IO]location_io_thread_init, tid exist");
        return 0;
    }
    pthread_t tid = 0;
    if (pthread_create(&tid, nullptr, location_io_rx_task, nullptr) != 0) {
        puts("[LOCSERV] ERR: [IO]location_io_thread_init, thread create fail");
        return -1;
    }
    state.tid = tid;
    return 0;
}

int32_t location_io_thread_deinit() {
    if (state.tid != 0) {
        if (pthread_cancel(state.tid) != 0) {
            puts("[LOCSERV] ERR: [IO]location_io_thread_deinit, fail");
            location_serial_port_gnss_deinit();
            return -1;
        }
        join_thread();
    }
    return location_serial_port_gnss_deinit() < 0 ? -1 : 0;
}

void* location_io_rx_task(void* /*unused*/) {
    puts("[LOCSERV] INF: [IO]location_io_rx_task");
    if (location_serial_port_gnss_init() < 0) {
        state.ended = true; // the next start begins anew
        return nullptr;
    }
    memset(state.buffer, 0, sizeof state.buffer);
    state.fill = 0;
    for (;;) {
        pthread_testcancel(); // while the chip always has data the thread reaches no other cancellation point
        const int32_t n =
            location_serial_port_gnss_read(state.buffer + state.fill, kReceiveBufferSize - state.fill);
        if (n < 1) {
            usleep(kIdlePollUs);
            continue;
        }
        take_in(n);
        hand_on_frames();
    }
}

void location_io_data_handle(uint32_t type, const uint8_t* data, int32_t length) {
    if (length < 1 || type > FRAME_BINARY) {
        return;
    }
    const auto size = static_cast<size_t>(length);
    auto* copy = static_cast<uint8_t*>(malloc(size + 1));
    if (copy == nullptr) {
        puts("[LOCSERV] ERR: [IO] location_io_data_handle, malloc fail");
        return;
    }
    memcpy(copy, data, size);
    copy[size] = '\0'; // the service reads sentences as C strings
    location_service_task_send_message(SERVICE_FRAME_NONE + type, copy, static_cast<uint32_t>(length));
}
