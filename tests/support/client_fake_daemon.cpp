#include "support/client_fake_daemon.h"

#include "support/wait.h"

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace {

void put(char* field, const std::string& text) {
    text.copy(field, text.size());
}

} // namespace

tavor_response make_response(uint32_t code, uint32_t value, const std::string& payload) {
    tavor_response response = {};
    response.code = code;
    response.value = value;
    payload.copy(reinterpret_cast<char*>(response.payload), sizeof response.payload);
    return response;
}

tavor_response make_position(const std::string& utc, const std::string& latitude,
                             const std::string& longitude, const std::string& height) {
    std::string bytes(TAVOR_POSITION_BLOCK_SIZE, '\0');
    put(&bytes[offsetof(tavor_location_record, utc)], utc);
    put(&bytes[offsetof(tavor_location_record, latitude)], latitude);
    put(&bytes[offsetof(tavor_location_record, longitude)], longitude);
    put(&bytes[offsetof(tavor_location_record, height)], height);
    return make_response(TAVOR_CODE_POSITION, 0, bytes);
}

FakeDaemon::FakeDaemon(std::string socket_path, Script run)
    : path(std::move(socket_path)), script(std::move(run)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        pipe2(quit, O_CLOEXEC) != 0) {
        throw std::runtime_error("no fake daemon at " + path);
    }
    thread = std::thread([this] { serve(); });
}

FakeDaemon::~FakeDaemon() {
    close(quit[1]);
    thread.join();
    close(quit[0]);
    close(socket);
    unlink(path.c_str());
}

void FakeDaemon::serve() {
    pollfd waits[2] = {{socket, POLLIN, 0}, {quit[0], POLLIN, 0}};
    while (poll(waits, 2, -1) > 0 && waits[1].revents == 0) {
        receive_one();
    }
}

void FakeDaemon::receive_one() {
    tavor_request request = {};
    sockaddr_un from = {};
    socklen_t length = sizeof from;
    if (recvfrom(socket, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&from), &length) < 0) {
        return;
    }
    {
        const std::lock_guard lock(mutex);
        requests.push_back(request);
        peer = from;
        peer_length = length;
    }
    received.notify_all();
    script(*this, request);
}

bool FakeDaemon::send_bytes(const void* data, size_t size) const {
    return sendto(socket, data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&peer), peer_length) >=
           0;
}

bool FakeDaemon::wait_requests(size_t count) {
    std::unique_lock lock(mutex);
    return received.wait_for(lock, kWaitLimit, [&] { return requests.size() >= count; });
}

std::vector<uint32_t> FakeDaemon::types() {
    const std::lock_guard lock(mutex);
    std::vector<uint32_t> types;
    for (const tavor_request& request : requests) {
        types.push_back(request.type);
    }
    return types;
}

std::vector<std::string> FakeDaemon::texts() {
    const std::lock_guard lock(mutex);
    std::vector<std::string> texts;
    for (const tavor_request& request : requests) {
        texts.emplace_back(request.text, strnlen(request.text, sizeof request.text));
    }
    return texts;
}

sockaddr_un FakeDaemon::sender() {
    const std::lock_guard lock(mutex);
    return peer;
}
