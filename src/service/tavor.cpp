#include "service/tavor.h"

#include "queue/service_queue.h"
#include "service/location_service.h"
#include "service/tavor_reply.h"
#include "service/tavor_rows.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

static_assert(sizeof(tavor_request) == TAVOR_REQUEST_SIZE && offsetof(tavor_request, text) == 4);
static_assert(sizeof(tavor_response) == TAVOR_RESPONSE_SIZE && offsetof(tavor_response, payload) == 8);
static_assert(sizeof(sockaddr_un) == TAVOR_ADDRESS_SIZE);

// What clients have not read stays charged to the daemon's socket: with the default of 208 KiB and queues of
// some hundred datagrams (net.unix.max_dgram_qlen) one client that does not read would leave no room for
// anybody's replies. Bytes.
constexpr int kSendBufferSize = 4 * 1024 * 1024;
constexpr uint64_t kUsPerSecond = 1000000;
constexpr uint64_t kNsPerUs = 1000;

struct TavorState {
    int32_t socket = -1;
    tavor_request request =
        {};                // not cleared between receives: a short datagram is completed by the one before
    TavorPeer sender = {}; // main thread only; each receive is given the length that the last one reported
    std::mutex client_lock;
    TavorPeer client = {};     // copy of sender for the service thread
    ReplyBudgets budgets = {}; // service thread only
    uint32_t send_wait_us = 0; // the socket's send time-out, 0: none set
};

TavorState state;

sockaddr_un socket_address() {
    sockaddr_un address = {};
    static_assert(sizeof TAVOR_SOCKET_PATH <= sizeof address.sun_path);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, TAVOR_SOCKET_PATH, sizeof TAVOR_SOCKET_PATH);
    return address;
}

// Beyond the system's limit where the daemon may go there, else up to it.
void widen_send_buffer(int32_t fd) {
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBufferSize, sizeof kSendBufferSize) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBufferSize, sizeof kSendBufferSize);
    }
}

void set_client(const TavorPeer& peer) {
    const std::lock_guard<std::mutex> guard(state.client_lock);
    state.client = peer;
}

TavorPeer get_client() {
    const std::lock_guard<std::mutex> guard(state.client_lock);
    return state.client;
}

void enqueue_command() {
    char* text = state.request.text;
    text[TAVOR_TEXT_SIZE - 1] = '\0';
    const size_t length = strlen(text);
    void* body = malloc(length + 1);
    if (body == nullptr) {
        puts("[LOCSERV] ERR: [tavor]cmd buf, malloc fail");
        return;
    }
    memcpy(body, text, length + 1);
    location_service_task_send_message(SERVICE_COMMAND, body, static_cast<uint32_t>(length));
}

void enqueue_request() {
    const uint32_t type = state.request.type;
    const TavorRow* row = tavor_row_of_type(type);
    if (row == nullptr) {
        printf("[LOCSERV] ERR: [tavor]unkown message type:%d\n", static_cast<int32_t>(type));
        return;
    }
    if (row->id == SERVICE_COMMAND) {
        enqueue_command();
        return;
    }
    location_service_task_send_message(row->id, nullptr, 0);
}

uint64_t monotonic_us() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kUsPerSecond + static_cast<uint64_t>(now.tv_nsec) / kNsPerUs;
}

// Returns the flags of a send that waits at most wait_us.
int send_flags(uint32_t wait_us) {
    if (wait_us == 0) {
        return MSG_DONTWAIT; // a time-out of 0 would mean none
    }
    if (wait_us == state.send_wait_us) {
        return 0;
    }
    const timeval timeout = {.tv_sec = static_cast<time_t>(wait_us / kUsPerSecond),
                             .tv_usec = static_cast<suseconds_t>(wait_us % kUsPerSecond)};
    if (setsockopt(state.socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
        return MSG_DONTWAIT;
    }
    state.send_wait_us = wait_us;
    return 0;
}

bool send_to_client(const tavor_response& response) {
    const TavorPeer client = get_client();
    const uint64_t started_us = monotonic_us();
    ReplyBudget* budget = tavor_reply_budget(&state.budgets, client, started_us);
    const int flags = send_flags(tavor_reply_wait(*budget));
    const ssize_t sent = sendto(state.socket, &response, sizeof response, flags,
                                reinterpret_cast<const sockaddr*>(&client.address), client.length);
    tavor_reply_done(budget, started_us, monotonic_us(), sent != -1);
    return sent != -1;
}

} // namespace

int32_t tavor_init() {
    const int32_t fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd == -1) {
        puts("[LOCSERV] ERR: tavor_init, socket error");
        return -1;
    }
    const sockaddr_un address = socket_address();
    unlink(TAVOR_SOCKET_PATH);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        puts("[LOCSERV] ERR: tavor_init, bind error");
        close(fd);
        return -1;
    }
    widen_send_buffer(fd);
    state.socket = fd;
    state.send_wait_us = 0;
    state.budgets = {};
    state.sender = {.address = {}, .length = sizeof(sockaddr_un)};
    set_client(state.sender);
    return fd;
}

int32_t tavor_receive() {
    const ssize_t received =
        recvfrom(state.socket, &state.request, sizeof state.request, 0,
                 reinterpret_cast<sockaddr*>(&state.sender.address), &state.sender.length);
    if (received == -1) {
        puts("[LOCSERV] ERR: recv error");
        close(state.socket);
        return -1;
    }
    // The kernel counts a NUL that a path of the full 108 bytes has no room for.
    state.sender.length = std::min<socklen_t>(state.sender.length, sizeof state.sender.address);
    set_client(state.sender);
    enqueue_request();
    return 0;
}

void tavor_send_response(uint32_t id, uint32_t value, const void* payload, uint32_t length) {
    const TavorRow* row = tavor_row_of_id(id);
    if (row == nullptr) {
        return;
    }
    tavor_response response = {.code = row->code, .value = value, .payload = {}};
    if (payload != nullptr) {
        memcpy(response.payload, payload, std::min<uint32_t>(length, TAVOR_PAYLOAD_SIZE));
    }
    if (!send_to_client(response)) {
        puts("[LOCSERV] ERR: tavor_send_response, sendto error");
    }
}

int tavor_run() {
    setvbuf(stdout, nullptr, _IOLBF, 0); // a supervisor sees each line when it happens
    signal(SIGPIPE, SIG_IGN);
    if (tavor_init() == -1) {
        return -1;
    }
    location_service_init(tavor_send_response);
    while (tavor_receive() == 0) {
    }
    return -1;
}
