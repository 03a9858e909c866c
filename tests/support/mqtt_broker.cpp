#include "support/mqtt_broker.h"

#include <algorithm>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned char kConnect = 0x10, kPublish = 0x30, kPing = 0xc0;

size_t number_at(const std::string& text, size_t at) {
    return static_cast<unsigned char>(text.at(at)) * 256U + static_cast<unsigned char>(text.at(at + 1));
}

} // namespace

MqttBroker::MqttBroker() : listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        listen(listener, 4) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no port for a broker");
    }
    port = ntohs(address.sin_port);
}

MqttBroker::~MqttBroker() {
    hang_up();
    close(listener);
}

void MqttBroker::hang_up() {
    if (fd >= 0) {
        close(fd);
    }
    fd = -1;
    connected = false;
    input.clear();
}

bool MqttBroker::send(const std::string& bytes) const {
    return fd >= 0 && ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
                          static_cast<ssize_t>(bytes.size());
}

void MqttBroker::take(unsigned char first, const std::string& body) {
    first_bytes.push_back(first);
    if (first == kConnect) {
        greeting = body;
        if (consent >= 0) {
            send(std::string("\x20\x02\x00", 3) + static_cast<char>(consent));
        }
    } else if (first == kPing) {
        send(std::string("\xd0\x00", 2));
    } else if ((first & 0xf0) == kPublish) {
        const size_t topic = number_at(body, 0);
        const int qos = (first >> 1) & 3;
        const size_t payload = 2 + topic + (qos > 0 ? 2 : 0);
        const int number = qos > 0 ? static_cast<int>(number_at(body, 2 + topic)) : 0;
        messages.push_back({body.substr(2, topic), body.substr(payload), qos, (first & 1) != 0, number});
        if (acknowledges) {
            send(std::string("\x40\x02", 2) + static_cast<char>(number / 256) +
                 static_cast<char>(number % 256));
        }
    }
}

void MqttBroker::turn() {
    const int next = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (next >= 0) {
        hang_up();
        fd = next;
        connected = true;
        ++connections;
    }
    char text[4096];
    ssize_t size = 0;
    while (fd >= 0 && (size = recv(fd, text, sizeof text, 0)) > 0) {
        input.append(text, static_cast<size_t>(size));
    }
    while (input.size() >= 2) {
        size_t length = 0;
        size_t at = 1;
        for (unsigned shift = 0; at < input.size(); shift += 7) {
            const auto byte = static_cast<unsigned char>(input[at++]);
            length += static_cast<size_t>(byte & 0x7f) << shift;
            if (byte < 0x80) {
                break;
            }
        }
        if (input.size() < at + length) {
            break;
        }
        const auto first = static_cast<unsigned char>(input[0]);
        const std::string body = input.substr(at, length);
        input.erase(0, at + length);
        take(first, body);
    }
    if (size == 0 && fd >= 0) {
        hang_up();
    }
}

std::vector<std::string> MqttBroker::payloads(const std::string& ending) const {
    std::vector<std::string> found;
    for (const MqttBrokerMessage& one : messages) {
        if (one.topic.ends_with(ending)) {
            found.push_back(one.payload);
        }
    }
    return found;
}

size_t MqttBroker::count(unsigned char first_byte) const {
    return static_cast<size_t>(std::count(first_bytes.begin(), first_bytes.end(), first_byte));
}
