#include "queue/service_queue.h"

#include "base/cancel_hold.h"
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

struct QueueRecord {
    long type;
    alignas(ServiceMessage) unsigned char body[kMessageBodySize];
};
static_assert(sizeof(ServiceMessage) <= kMessageBodySize);

struct ServiceQueueState {
    // Carries the producer's writes over to the consumer: the language does not know that the kernel's queue
    // does.
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
        service_queue_handled(id);
    }

    uint32_t id;
    void* data;
    bool sent = false;
};

QueueRecord make_record(const ServiceMessage& message) {
    QueueRecord record = {.type = kMessageType, .body = {}};
    memcpy(record.body, &message, sizeof message);
    return record;
}

// Returns 0 or the error number. Cancellation is held off: acted upon inside a msgsnd that succeeded it would
// free a block that the consumer owns by then.
int enqueue_now(const QueueRecord& record, UnsentMessage* message) {
    const CancelHold hold;
    int result = 0;
    do {
        result = msgsnd(g_service_state.msqid, &record, kMessageBodySize, IPC_NOWAIT);
    } while (result == -1 && errno == EINTR);
    message->sent = result == 0;
    return message->sent ? 0 : errno;
}

bool enqueue(const ServiceMessage& body) {
    UnsentMessage message(body.id, body.data);
    const QueueRecord record = make_record(body);
    state.handovers.fetch_add(1, std::memory_order_release);

    int error = enqueue_now(record, &message);
    while (error == EAGAIN && !ServiceQueueState::is_consumer) {
        usleep(kFullQueuePauseUs);
        error = enqueue_now(record, &message);
    }
    return error == 0;
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
    if (!enqueue({.id = id, .data = data, .length = length})) {
        puts("[LOCSERV] ERR: location_service_task_send_message, Fail!");
    }
}

bool service_queue_receive(ServiceMessage* message) {
    ServiceQueueState::is_consumer = true;
    QueueRecord record = {};
    const ssize_t received = msgrcv(g_service_state.msqid, &record, kMessageBodySize, 0, 0);
    if (received == -1 && errno == E2BIG) { // of another process: it would stay in front for ever
        msgrcv(g_service_state.msqid, &record, kMessageBodySize, 0, IPC_NOWAIT | MSG_NOERROR);
        return false;
    }
    if (received != static_cast<ssize_t>(kMessageBodySize)) {
        // Without a queue each try fails at once: the pause keeps the caller's retries from taking a whole
        // core.
        usleep(kBrokenQueuePauseUs);
        return false;
    }
    static_cast<void>(state.handovers.load(std::memory_order_acquire));
    memcpy(message, record.body, sizeof *message);
    return true;
}

void service_queue_handled(uint32_t id) {
    if (stops_link(id)) {
        stop_request_withdraw();
    }
}
