#include "client/place.h"

#include "base/descriptor_guard.h"
#include "base/regular_file.h"
#include "client/relay_status.h"
#include "config/location_config.h"
#include "config/location_config_text.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr char kConfigName[] = "tavor.conf";

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::optional<std::string> read_from(int fd, size_t most) {
    std::string content;
    std::array<char, 4096> bytes = {};
    while (content.size() < most) {
        const ssize_t count = read(fd, bytes.data(), std::min(bytes.size(), most - content.size()));
        if (count < 0) {
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        content.append(bytes.data(), static_cast<size_t>(count));
    }
    return content;
}

// The text after the key; none where no line holds it.
std::optional<std::string> find(const Place& place, location_config_id id) {
    std::array<char, kConfigLineSize> value = {};
    const ConfigText text = {place.config.data(), place.config.size()};
    if (!config_text_find(text, location_config_key(id).key, value.data())) {
        return std::nullopt;
    }
    return std::string(value.data());
}

std::string socket_behind(const std::string& socket, const std::optional<RelayStatus>& relay) {
    if (relay && !relay->daemon.empty()) {
        return relay->daemon;
    }
    return socket == TAVOR_RELAY_SOCKET_PATH ? TAVOR_SOCKET_PATH : socket;
}

} // namespace

std::string place_daemon_socket(const std::string& socket) {
    return socket_behind(socket, relay_status_ask(socket));
}

Place place_of(const std::string& socket) {
    Place place;
    const auto relay = relay_status_ask(socket);
    place.socket = socket_behind(socket, relay);
    if (relay && place.socket == socket) {
        place.hidden = "a relay holds the socket and does not tell its daemon's: " + relay->why;
    }
    place.directory = directory_of(place.socket);
    place.usual = place.socket == TAVOR_SOCKET_PATH;
    place.known = std::string_view(place.socket).ends_with(TAVOR_SOCKET_PATH);
    if (const auto content = place_read(place_config(place), kConfigContentMax)) {
        place.config = *content;
    } else {
        place.config_error = errno;
    }
    return place;
}

std::string place_path(const Place& place, const std::string& path) {
    const std::string usual = directory_of(TAVOR_SOCKET_PATH);
    return path.compare(0, usual.size() + 1, usual + "/") == 0 ? place.directory + path.substr(usual.size())
                                                               : path;
}

std::string place_config(const Place& place) {
    return place.directory + "/" + kConfigName;
}

std::string place_text(const Place& place, location_config_id id) {
    return find(place, id).value_or(location_config_key(id).text).substr(0, kConfigTextSize - 1);
}

int32_t place_number(const Place& place, location_config_id id) {
    const auto text = find(place, id);
    return text ? config_text_number(text->c_str()) : location_config_key(id).number;
}

std::optional<std::string> place_read(const std::string& path, size_t most) {
    const DescriptorGuard file(regular_file_open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file.fd < 0 ? std::nullopt : read_from(file.fd, most);
}

std::optional<std::string> place_read_end(const std::string& path, size_t most) {
    const DescriptorGuard file(regular_file_open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0) {
        return std::nullopt;
    }
    lseek(file.fd, std::max<off_t>(0, status.st_size - static_cast<off_t>(most)), SEEK_SET);
    return read_from(file.fd, most);
}

// A directory, a FIFO or a device in place of a file has the error number of a device that is missing.
std::string place_failure(int error) {
    return error == ENODEV ? "no regular file" : strerror(error);
}
