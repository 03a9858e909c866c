#include "queue/service_queue.h"

#include "base/cancel_hold.h"
#include "base/monotonic.h"
#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "queue/service_state.h"

#include <algorithm>
#include <atomic>
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
constexpr size_t kSentMax = 16384;
constexpr size_t kMessageBodySize = 24; // bytes, also where pointers are shorter
constexpr useconds_t kFullQueuePauseUs = 1000;
constexpr useconds_t kBrokenQueuePauseUs = 10000;
constexpr useconds_t kEmptyQueuePauseUs = 10000;

// Message type of an empty record, which stands for a stop or download request when the queue is full: the
// kernel limits the bytes in a queue, so a record without bytes still fits. It holds the serial number and
// which of the two it is.
constexpr long kBodiless = 1L << 30;
constexpr uint32_t kSerialMax = (1U << 29) - 1;

constexpr long bodiless_type(const ServiceMessage& message) {
    return kBodiless | static_cast<long>(message.serial << 1 | (message.id == SERVICE_DOWNLOAD ? 1 : 0));
}

struct QueueRecord {
    long type;
    alignas(ServiceMessage) unsigned char body[kMessageBodySize];
};
static_assert(sizeof(ServiceMessage) <= kMessageBodySize);

// Other processes may put records into the queue and take some out of it. What was sent is therefore listed,
// in the order of the queue: a block is taken from a listed message only, and what another process took is
// over with the next one that is received, or when the service finds the queue empty; while it sleeps that
// is not noticed. A program that empties the queue all the time leaves as many listed as the kernel's usual
// queue has bytes. Nothing waits under the lock, and nobody is cancelled under it.
struct ServiceQueueState {
    std::mutex lock;
    std::deque<ServiceMessage> sent;
    std::atomic<uint32_t> serials{0};
    inline static thread_local bool is_consumer = false;
};

ServiceQueueState state;

bool stops_link(uint32_t id) {
    return id == SERVICE_STOP || id == SERVICE_DOWNLOAD;
}

uint32_t next_serial() {
    return state.serials++ % kSerialMax + 1;
}

void give_up(const ServiceMessage& message) {
    free(message.data);
    service_queue_handled(message);
}

// Holds a message until the queue has it; gives back what was not sent, on cancellation too.
struct UnsentMessage : private NonCopyable {
    explicit UnsentMessage(const ServiceMessage& message) : body(message) {
        body.serial = next_serial();
        if (stops_link(body.id)) {
            stop_request_announce();
        }
    }
    ~UnsentMessage() {
        if (!sent) {
            give_up(body);
        }
    }

    ServiceMessage body;
    bool sent = false;
};

QueueRecord make_record(const ServiceMessage& message) {
    QueueRecord record = {.type = kMessageType, .body = {}};
    memcpy(record.body, &message, sizeof message);
    return record;
}

// Gives up the oldest messages of the list.
void lose(size_t count) {
    for (; count > 0; --count) {
        give_up(state.sent.front());
        state.sent.pop_front();
    }
}

// Takes a received message off the list. Returns false when it carries a block and was not sent.
bool claim(ServiceMessage* message) {
    const std::lock_guard guard(state.lock);
    const auto found = std::ranges::find_if(state.sent, [&](const ServiceMessage& sent) {
        return sent.serial == message->serial && sent.id == message->id && sent.data == message->data &&
               sent.length == message->length;
    });
    if (found == state.sent.end()) {
        message->serial = 0;
        return message->data == nullptr;
    }
    lose(static_cast<size_t>(found - state.sent.begin()));
    state.sent.pop_front();
    return true;
}

size_t messages_in_queue() {
    msqid_ds info = {};
    return msgctl(g_service_state.msqid, IPC_STAT, &info) == 0 ? info.msg_qnum : 0;
}

// Forgets the oldest of a long list, unless the list is as long as the queue and what the service has in
// hand.
void limit_list() {
    if (state.sent.size() > kSentMax && state.sent.size() > messages_in_queue() + 1) {
        lose(1);
    }
}

// Returns 0 or the error number. Cancellation is held off: acted upon inside a msgsnd that succeeded it would
// free the block of a message that is in the queue.
int enqueue_now(const QueueRecord& record, size_t size, UnsentMessage* message) {
    const CancelHold hold;
    const std::lock_guard guard(state.lock);
    state.sent.push_back(message->body);
    int result = 0;
    do {
        result = msgsnd(g_service_state.msqid, &record, size, IPC_NOWAIT);
    } while (result == -1 && errno == EINTR);
    if (result == -1) {
        const int error = errno;
        state.sent.pop_back();
        return error;
    }
    message->sent = true;
    limit_list();
    return 0;
}

// For a full queue: a stop or a download goes in all the same.
int enqueue_bodiless(UnsentMessage* message) {
    const QueueRecord record = {.type = bodiless_type(message->body), .body = {}};
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
    UnsentMessage message(body);
    const QueueRecord record = make_record(message.body);

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

bool unpack(const QueueRecord& record, ssize_t size, ServiceMessage* message) {
    if (size == static_cast<ssize_t>(kMessageBodySize)) {
        memcpy(message, record.body, sizeof *message);
        return claim(message);
    }
    if (size == 0 && (record.type & kBodiless) != 0) {
        *message = {.id = (record.type & 1) != 0 ? SERVICE_DOWNLOAD : SERVICE_STOP,
                    .data = nullptr,
                    .length = 0,
                    .serial = static_cast<uint32_t>((record.type & ~kBodiless) >> 1)};
        return claim(message) && message->serial != 0;
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
    if ((error == EIDRM || error == EINVAL) && service_queue_open() != -1) {
        puts("[LOCSERV] WRN: the service queue was gone and is made again");
    }
    // The pause keeps the caller's retries from taking a whole core.
    usleep(kBrokenQueuePauseUs);
}

// Takes a message that is in the queue. An empty queue holds none of the list.
ssize_t receive_now(QueueRecord* record) {
    const std::lock_guard guard(state.lock);
    const ssize_t received = msgrcv(g_service_state.msqid, record, kMessageBodySize, 0, IPC_NOWAIT);
    if (received == -1 && errno == ENOMSG) {
        lose(state.sent.size());
        errno = ENOMSG;
    }
    return received;
}

} // namespace

int32_t service_queue_open() {
    const std::lock_guard guard(state.lock);
    lose(state.sent.size());
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
    ssize_t received = receive_now(&record);
    if (received == -1 && errno == ENOMSG && wait == ServiceQueueWait::until_one_comes) {
        received = msgrcv(g_service_state.msqid, &record, kMessageBodySize, 0, 0);
    }
    if (received == -1 && errno == ENOMSG) {
        usleep(kEmptyQueuePauseUs);
        return false;
    }
    if (received == -1) {
        recover(errno);
        return false;
    }
    return unpack(record, received, message);
}

void service_queue_handled(const ServiceMessage& message) {
    if (message.serial != 0 && stops_link(message.id)) {
        stop_request_withdraw();
    }
}
