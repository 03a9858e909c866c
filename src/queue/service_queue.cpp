#include "queue/service_queue.h"

#include "base/cancel_hold.h"
#include "base/monotonic.h"
#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "queue/service_state.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

namespace {

constexpr key_t kQueueKey = 1234;
constexpr int kQueueMode = 0666;
constexpr long kMessageType = 1;
constexpr size_t kMessageBodySize = 24; // bytes, also where pointers are shorter
constexpr useconds_t kFullQueuePauseUs = 1000;
constexpr useconds_t kBrokenQueuePauseUs = 10000;
constexpr useconds_t kEmptyQueuePauseUs = 10000;

// Message type of an empty record, which stands for a stop or download request when the queue is full. The
// kernel limits the bytes in a queue, so a record without bytes still fits.
constexpr long bodiless_type(uint32_t id) {
    return long{kServiceAnnounced} + static_cast<long>(id);
}

struct QueueRecord {
    long type;
    alignas(ServiceMessage) unsigned char body[kMessageBodySize];
};
static_assert(sizeof(ServiceMessage) <= kMessageBodySize);

struct ServiceQueueState {
    // Orders memory between threads: msgsnd and msgrcv do it in fact, but C++ (and ThreadSanitizer) only
    // trusts atomics.
    std::atomic<uint32_t> handovers = 0;
    inline static thread_local bool is_consumer = false;
};

ServiceQueueState state;

bool stops_link(uint32_t id) {
    return id == SERVICE_STOP || id == SERVICE_DOWNLOAD;
}

// Holds a message until the queue has it; gives back what was not sent, on cancellation too.
struct UnsentMessage : private NonCopyable {
    UnsentMessage(uint32_t message_id, void* message_data) : id(message_id), data(message_data) {
        if (stops_link(id)) {
            stop_request_announce();
        }
    }
    ~UnsentMessage() {
        if (sent) {
            return;
        }
        free(data);
        if (stops_link(id)) {
            stop_request_withdraw();
        }
    }

    uint32_t id;
    void* data;
    bool sent = false;
};

QueueRecord make_record(const ServiceMessage& message) {
    QueueRecord record = {.type = kMessageType, .body = {}};
    ServiceMessage marked = message;
    marked.announced = stops_link(message.id) ? kServiceAnnounced : 0;
    memcpy(record.body, &marked, sizeof marked);
    return record;
}

// Returns 0 or the error number. Cancellation is held off: acted upon inside a msgsnd that succeeded it would
// free a block that the consumer owns by then.
int enqueue_now(const QueueRecord& record, size_t size, UnsentMessage* message) {
    const CancelHold hold;
    int result = 0;
    do {
        result = msgsnd(g_service_state.msqid, &record, size, IPC_NOWAIT);
    } while (result == -1 && errno == EINTR);
    message->sent = result == 0;
    return message->sent ? 0 : errno;
}

// For a full queue: a stop or a download goes in all the same.
int enqueue_bodiless(UnsentMessage* message) {
    const QueueRecord record = {.type = bodiless_type(message->id), .body = {}};
    return enqueue_now(record, 0, message);
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
    UnsentMessage message(body.id, body.data);
    const QueueRecord record = make_record(body);
    state.handovers.fetch_add(1, std::memory_order_release);

    int error = enqueue_now(record, kMessageBodySize, &message);
    if (error == EAGAIN && stops_link(body.id)) {
        error = enqueue_bodiless(&message);
    }
    while (error == EAGAIN && waits_for_room(patience)) {
        usleep(kFullQueuePauseUs);
        error = enqueue_now(record, kMessageBodySize, &message);
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

// A removed queue took its messages along: what they announced is over. A stop that is just being sent may
// lose its announcement; it is handled in its turn then.
void make_again() {
    while (stop_request_withdraw()) {
    }
    if (service_queue_open() != -1) {
        puts("[LOCSERV] WRN: the service queue was gone and is made again");
    }
}

bool unpack(const QueueRecord& record, ssize_t size, ServiceMessage* message) {
    if (size == static_cast<ssize_t>(kMessageBodySize)) {
        memcpy(message, record.body, sizeof *message);
        return true;
    }
    for (const uint32_t id : {SERVICE_STOP, SERVICE_DOWNLOAD}) {
        if (size == 0 && record.type == bodiless_type(id)) {
            *message = {.id = id, .data = nullptr, .length = 0, .announced = kServiceAnnounced};
            return true;
        }
    }
    return false;
}

// What to do about a receive that failed.
void recover(int error) {
    if (error == E2BIG) { // of another process: it would stay in front for ever
        QueueRecord cut = {};
        msgrcv(g_service_state.msqid, &cut, kMessageBodySize, 0, IPC_NOWAIT | MSG_NOERROR);
        return;
    }
    if (error == EIDRM || error == EINVAL) {
        make_again();
    }
    // The pause keeps the caller's retries from taking a whole core.
    usleep(kBrokenQueuePauseUs);
}

} // namespace

int32_t service_queue_open() {
    const int old_queue = msgget(kQueueKey, IPC_EXCL);
    if (old_queue != -1) {
        msgctl(old_queue, IPC_RMID, nullptr);
    }
    g_service_state.msqid = msgget(kQueueKey, IPC_CREAT | IPC_EXCL | kQueueMode);
    return g_service_state.msqid;
}

void location_service_task_send_message(uint32_t id, void* data, uint32_t length) {
    enqueue_or_log({.id = id, .data = data, .length = length}, nullptr);
}

bool service_queue_request(uint32_t id, void* data, uint32_t length, ServiceQueuePatience* patience) {
    return enqueue_or_log({.id = id, .data = data, .length = length}, patience);
}

bool service_queue_receive(ServiceMessage* message, ServiceQueueWait wait) {
    ServiceQueueState::is_consumer = true;
    QueueRecord record = {};
    const int flags = wait == ServiceQueueWait::shortly ? IPC_NOWAIT : 0;
    const ssize_t received = msgrcv(g_service_state.msqid, &record, kMessageBodySize, 0, flags);
    if (received == -1 && errno == ENOMSG) {
        usleep(kEmptyQueuePauseUs);
        return false;
    }
    if (received == -1) {
        recover(errno);
        return false;
    }
    static_cast<void>(state.handovers.load(std::memory_order_acquire));
    return unpack(record, received, message);
}

void service_queue_handled(const ServiceMessage& message) {
    if (message.announced == kServiceAnnounced) {
        stop_request_withdraw();
    }
}
