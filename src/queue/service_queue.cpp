#include "queue/service_queue.h"

#include "base/cancel_hold.h"
#include "base/monotonic.h"
#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "queue/service_state.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

namespace {

constexpr key_t kQueueKey = 1234;
constexpr int kQueueMode = 0666;
constexpr long kMessageType = 1;
constexpr size_t kMessageBodySize = 24; // bytes, also where pointers are shorter
constexpr useconds_t kFullQueuePauseUs = 1000;
constexpr useconds_t kNothingReceivedPauseUs = 10000;

// Messages in transit at most; for stops and downloads twice as many. The kernel's queue is full long before,
// unless another program empties it.
constexpr size_t kListMax = 16384;

struct QueueRecord {
    long type;
    unsigned char body[kMessageBodySize];
};
static_assert(sizeof(ServiceMessage) <= kMessageBodySize);

// Messages in transit, oldest first. Their records in the kernel's queue limit them and wake the service, but
// are never read: what other programs put in means nothing, and what they take loses nothing. When one takes
// a record while the service sleeps, its message waits until the next is sent; if it is a stop, it stands
// announced meanwhile. Nothing waits under the lock, and nobody is cancelled under it.
struct ServiceQueueState {
    std::mutex lock;
    std::deque<ServiceMessage> list;
    inline static thread_local bool is_consumer = false;
};

ServiceQueueState state;

bool stops_link(uint32_t id) {
    return id == SERVICE_STOP || id == SERVICE_DOWNLOAD;
}

void give_up(const ServiceMessage& message) {
    free(message.data);
    service_queue_handled(message);
}

// Holds a message until the queue has it; gives back what was not sent, on cancellation too.
struct UnsentMessage : private NonCopyable {
    explicit UnsentMessage(const ServiceMessage& message) : body(message) {
        if (stops_link(body.id)) {
            stop_request_announce();
        }
    }
    ~UnsentMessage() {
        if (!sent) {
            give_up(body);
        }
    }

    const ServiceMessage body;
    bool sent = false;
};

QueueRecord make_record(const ServiceMessage& message) {
    QueueRecord record = {.type = kMessageType, .body = {}};
    memcpy(record.body, &message, sizeof message);
    return record;
}

// Returns 0 or the error number. Cancellation is held off: acted upon inside a msgsnd that succeeded it would
// lose the message.
int enqueue_now(UnsentMessage* message) {
    const QueueRecord record = make_record(message->body);
    const bool stops = stops_link(message->body.id);
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    // Sent for a full list too: the record that should have woken the service may be gone. For a stop a full
    // queue does as well: it wakes the service anyway.
    if (msgsnd(g_service_state.msqid, &record, kMessageBodySize, IPC_NOWAIT) == -1 &&
        !(errno == EAGAIN && stops)) {
        return errno;
    }
    if (state.list.size() >= (stops ? 2 * kListMax : kListMax)) {
        return EAGAIN;
    }
    state.list.push_back(message->body);
    message->sent = true;
    return 0;
}

bool lasts(ServiceQueuePatience* patience) {
    const uint64_t now_us = monotonic_us();
    if (patience->until_us == 0) {
        patience->until_us = now_us + patience->wait_us;
    }
    return now_us < patience->until_us;
}

// Whether a send that found the queue full tries again. patience: null: without limit.
bool waits_for_room(ServiceQueuePatience* patience) {
    return !ServiceQueueState::is_consumer && (patience == nullptr || lasts(patience));
}

bool enqueue(const ServiceMessage& body, ServiceQueuePatience* patience) {
    UnsentMessage message(body);
    int error = enqueue_now(&message);
    while (error == EAGAIN && waits_for_room(patience)) {
        usleep(kFullQueuePauseUs);
        error = enqueue_now(&message);
    }
    return error == 0;
}

bool enqueue_or_log(const ServiceMessage& body, ServiceQueuePatience* patience) {
    const bool sent = enqueue(body, patience);
    if (!sent) {
        puts("[LOCSERV] ERR: location_service_task_send_message, Fail!");
    }
    return sent;
}

bool messages_wait() {
    const std::lock_guard guard(state.lock);
    return !state.list.empty();
}

bool take_first(ServiceMessage* message) {
    const std::lock_guard guard(state.lock);
    if (state.list.empty()) {
        return false;
    }
    *message = state.list.front();
    state.list.pop_front();
    return true;
}

// Under the lock.
int32_t make_queue() {
    const int old_queue = msgget(kQueueKey, IPC_EXCL);
    if (old_queue != -1) {
        msgctl(old_queue, IPC_RMID, nullptr);
    }
    g_service_state.msqid = msgget(kQueueKey, IPC_CREAT | IPC_EXCL | kQueueMode);
    return g_service_state.msqid;
}

int32_t make_queue_again() {
    const std::lock_guard guard(state.lock);
    return make_queue();
}

// Takes a record out of the kernel's queue, whatever it says. flags: IPC_NOWAIT or 0, to wait for one.
// Returns whether there was one; a queue that is gone is made again.
bool take_record(int flags) {
    QueueRecord record = {};
    if (msgrcv(g_service_state.msqid, &record, kMessageBodySize, 0, MSG_NOERROR | flags) != -1) {
        return true;
    }
    if ((errno == EIDRM || errno == EINVAL) && make_queue_again() != -1) {
        puts("[LOCSERV] WRN: the service queue was gone and is made again");
    }
    return false;
}

} // namespace

int32_t service_queue_open() {
    const std::lock_guard guard(state.lock);
    for (; !state.list.empty(); state.list.pop_front()) {
        give_up(state.list.front());
    }
    return make_queue();
}

void location_service_task_send_message(uint32_t id, void* data, uint32_t length) {
    enqueue_or_log({.id = id, .data = data, .length = length}, nullptr);
}

bool service_queue_request(uint32_t id, void* data, uint32_t length, ServiceQueuePatience* patience) {
    return enqueue_or_log({.id = id, .data = data, .length = length}, patience);
}

bool service_queue_receive(ServiceMessage* message, ServiceQueueWait wait) {
    ServiceQueueState::is_consumer = true;
    const bool waiting = messages_wait(); // their records may be gone
    const bool at_once = waiting || wait == ServiceQueueWait::shortly;
    if (!take_record(at_once ? IPC_NOWAIT : 0) && !waiting) {
        // Without a queue, the pause keeps the caller's retries from taking a whole core.
        usleep(kNothingReceivedPauseUs);
    }
    return take_first(message);
}

void service_queue_handled(const ServiceMessage& message) {
    if (stops_link(message.id)) {
        stop_request_withdraw();
    }
}
