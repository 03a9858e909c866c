#include "service/tavor.h"

#include "base/descriptor_guard.h"
#include "base/log_output.h"
#include "queue/service_queue.h"
#include "service/location_service.h"
#include "service/tavor_reply.h"
#include "service/tavor_rows.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

static_assert(sizeof(tavor_request) == TAVOR_REQUEST_SIZE && offsetof(tavor_request, text) == 4);

// What clients have not read stays charged to the daemon's socket: with the default of 208 KiB and queues of
// some hundred datagrams (net.unix.max_dgram_qlen) one client that does not read would leave no room for
// anybody's replies. Bytes.
constexpr int kSendBufferSize = 4 * 1024 * 1024;

// For which requests wait for room in the service queue: those that wait together in the socket share it, so
// that a stop behind them is received soon enough to be answered within two seconds.
constexpr uint64_t kRoomWaitUs = 500000;

constexpr int kAlreadyRunning = 1; // exit status

struct TavorState {
    int32_t socket = -1;
    // Not cleared between receives: a short datagram is completed by the one before.
    tavor_request request = {};
    // Each receive is given the length that the last one reported.
    TavorPeer sender = {};
    ServiceQueuePatience patience = {.wait_us = kRoomWaitUs};
};

TavorState state; // of the main thread

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

// Takes the directory of the socket for this process: the lock dies with it and leaves no file behind.
// Returns the descriptor that holds it; -1 with errno set, to EWOULDBLOCK when another daemon has it.
int lock_directory() {
    const std::string path = TAVOR_SOCKET_PATH;
    DescriptorGuard directory(
        open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.fd == -1) {
        return -1;
    }
    return flock(directory.fd, LOCK_EX | LOCK_NB) == 0 ? directory.release() : -1;
}

// Tells why the daemon does not run. Returns the exit status.
int report_no_lock(int error) {
    if (error == EWOULDBLOCK) {
        fputs("tavor is already running\n", stderr);
        return kAlreadyRunning;
    }
    fprintf(stderr, "tavor: can't lock the directory of %s: %s\n", TAVOR_SOCKET_PATH, strerror(error));
    return -1;
}

// The request, waiting for one.
ssize_t receive_request() {
    const auto receive = [](int flags) {
        return recvfrom(state.socket, &state.request, sizeof state.request, flags,
                        reinterpret_cast<sockaddr*>(&state.sender.address), &state.sender.length);
    };
    const ssize_t waiting = receive(MSG_DONTWAIT);
    if (waiting != -1 || errno != EAGAIN) {
        return waiting;
    }
    state.patience = {.wait_us = kRoomWaitUs};
    return receive(0);
}

// Returns whether the request needs no answer from here.
bool enqueue_command() {
    char* text = state.request.text;
    text[TAVOR_TEXT_SIZE - 1] = '\0';
    const size_t length = strlen(text);
    void* body = malloc(length + 1);
    if (body == nullptr) {
        puts("[LOCSERV] ERR: [tavor]cmd buf, malloc fail");
        return true;
    }
    memcpy(body, text, length + 1);
    return service_queue_request(SERVICE_COMMAND, body, static_cast<uint32_t>(length), &state.patience);
}

void enqueue_request() {
    const uint32_t type = state.request.type;
    const TavorRow* row = tavor_row_of_type(type);
    if (row == nullptr) {
        printf("[LOCSERV] ERR: [tavor]unkown message type:%d\n", static_cast<int32_t>(type));
        return;
    }
    const bool enqueued = row->id == SERVICE_COMMAND
                              ? enqueue_command()
                              : service_queue_request(row->id, nullptr, 0, &state.patience);
    if (!enqueued) {
        tavor_reply_failed(row->id);
    }
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
    state.sender = {.address = {}, .length = sizeof(sockaddr_un)};
    tavor_reply_open(fd);
    return fd;
}

int32_t tavor_receive() {
    if (receive_request() == -1) {
        puts("[LOCSERV] ERR: recv error");
        close(state.socket);
        return -1;
    }
    // The kernel counts a NUL that a path of the full 108 bytes has no room for.
    state.sender.length = std::min<socklen_t>(state.sender.length, sizeof state.sender.address);
    tavor_reply_to(state.sender);
    enqueue_request();
    return 0;
}

int tavor_run() {
    log_output_init();
    signal(SIGPIPE, SIG_IGN);
    const DescriptorGuard lock(lock_directory());
    if (lock.fd == -1 && errno != ENOENT) { // without its directory the socket can't be bound either
        return report_no_lock(errno);
    }
    if (tavor_init() == -1 || location_service_init(tavor_send_response) == -1) {
        return -1;
    }
    while (tavor_receive() == 0) {
    }
    return -1;
}
