#include "debug/location_debug_queue.h"

#include "base/cancel_hold.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr key_t kQueueKey = 1235;
constexpr int kQueuePermissions = 0666;
constexpr long kMessageType = 1;
constexpr useconds_t kFailedReceivePauseUs = 300'000;

struct DebugMessage {
    long type;
    DebugBlock* data;
    uint64_t length;
};

// Of the blocks in transit: a slow line lags by so much at most, 6 s at 115200 baud. One block always fits.
constexpr uint64_t kBytesMax = 65536;

constexpr size_t kBodySize = sizeof(DebugMessage) - offsetof(DebugMessage, data);
static_assert(offsetof(DebugMessage, data) == sizeof(long) && (kBodySize == 16 || sizeof(void*) < 8));

// Blocks in transit, oldest first. Nothing waits under the lock, and nobody is cancelled under it.
struct DebugQueueState {
    std::mutex lock;
    std::atomic<int32_t> id;
    DebugBlock* first;
    DebugBlock* last;
    uint64_t bytes; // in all blocks
    bool refusing;  // since a block was refused, until all others are taken
} state{.lock = {}, .id = -1, .first = nullptr, .last = nullptr, .bytes = 0, .refusing = false};

void append(DebugBlock* block) {
    (state.first == nullptr ? state.first : state.last->next) = block;
    state.last = block;
    state.bytes += block->length;
}

DebugBlockPtr pop() {
    DebugBlockPtr block(state.first);
    state.first = block->next;
    state.bytes -= block->length;
    return block;
}

DebugBlockPtr take_first() {
    const std::lock_guard guard(state.lock);
    return state.first == nullptr ? nullptr : pop();
}

bool blocks_wait() {
    const std::lock_guard guard(state.lock);
    return state.first != nullptr;
}

} // namespace

void location_debug_queue_init() {
    const std::lock_guard guard(state.lock);
    state.id = -1;
}

int32_t location_debug_queue_open() {
    if (state.id != -1) {
        puts("[LOCSERV] INF: [debug]location_debug_start, msgid exist");
        return 0;
    }
    int32_t id = msgget(kQueueKey, 0);
    if (id != -1) {
        printf("[LOCSERV] INF: [debug]location_debug_start, msgid exist:%d\n", id);
        state.id = id;
        return 0;
    }
    id = msgget(kQueueKey, IPC_CREAT | IPC_EXCL | kQueuePermissions);
    if (id == -1) {
        puts("[LOCSERV] ERR: [debug]location_debug_start, msgid fail");
        return -1;
    }
    printf("[LOCSERV] INF: [debug]location_debug_start, creat msg:%d\n", id);
    state.id = id;
    return 0;
}

void location_debug_queue_close() {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    if (state.id != -1) {
        msgctl(state.id, IPC_RMID, nullptr);
        state.id = -1;
    }
    while (state.first != nullptr) {
        pop();
    }
}

bool location_debug_queue_is_open() {
    return state.id != -1;
}

DebugBlockPtr location_debug_block_copy(const uint8_t* data, uint32_t length) {
    DebugBlockPtr block(static_cast<DebugBlock*>(malloc(sizeof(DebugBlock) + length)));
    if (block) {
        *block = {.next = nullptr, .length = length};
        std::copy_n(data, length, reinterpret_cast<uint8_t*>(block.get() + 1));
    }
    return block;
}

const uint8_t* location_debug_block_data(const DebugBlock* block) {
    return reinterpret_cast<const uint8_t*>(block + 1);
}

bool location_debug_queue_send(DebugBlockPtr block) {
    const DebugMessage message{.type = kMessageType, .data = block.get(), .length = block->length};
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    const bool too_many =
        state.first != nullptr && (state.refusing || state.bytes + block->length > kBytesMax);
    state.refusing = too_many;
    // Sent for a refused block too, as another process may have taken the message that should have woken the
    // receiver. A queue that is full of messages wakes it as well.
    const bool wakes = msgsnd(state.id, &message, kBodySize, IPC_NOWAIT) == 0 || errno == EAGAIN;
    if (too_many || !wakes) {
        return false;
    }
    append(block.release()); // the receiver takes it under this lock, so not before now
    return true;
}

DebugBlockPtr location_debug_queue_receive() {
    DebugMessage message{};
    const int wait = blocks_wait() ? IPC_NOWAIT : 0; // their messages may be gone
    if (msgrcv(state.id, &message, kBodySize, 0, MSG_NOERROR | wait) < 0 && errno != EINTR &&
        errno != ENOMSG) {
        usleep(kFailedReceivePauseUs); // the queue is gone: nothing to be had by hurrying
    }
    return take_first();
}
