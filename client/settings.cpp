#include "client/settings.h"

#include "tavor/protocol.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kLineMax = 255;
constexpr std::string_view kPlace = "/etc/default/tavor/";
constexpr std::string_view kSocket = TAVOR_SOCKET_PATH;

struct Descriptor {
    explicit Descriptor(int number) : fd(number) {}
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int fd;
};

// Opening a FIFO would wait for its other end, and a device may never end.
bool is_readable(const Descriptor& file, size_t max) {
    struct stat status = {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0) {
        return false;
    }
    const bool small = static_cast<uint64_t>(std::max<off_t>(status.st_size, 0)) <= max;
    errno = !S_ISREG(status.st_mode) ? ENODEV : EFBIG;
    return S_ISREG(status.st_mode) && small;
}

} // namespace

std::string settings_daemon_socket(const std::string& socket) {
    return socket == TAVOR_RELAY_SOCKET_PATH ? TAVOR_SOCKET_PATH : socket;
}

std::optional<std::string> settings_root(const std::string& socket) {
    const std::string own = settings_daemon_socket(socket);
    const bool usual = own.size() >= kSocket.size() &&
                       own.compare(own.size() - kSocket.size(), kSocket.size(), kSocket) == 0;
    return usual ? std::optional(own.substr(0, own.size() - kSocket.size())) : std::nullopt;
}

std::string settings_file(const std::string& root, const std::string& path) {
    return path.compare(0, kPlace.size(), kPlace) == 0 ? root + path : path;
}

std::optional<std::string_view> settings_line(std::string_view content, size_t& at) {
    if (at >= content.size()) {
        return std::nullopt;
    }
    const std::string_view piece = content.substr(at, kLineMax);
    const size_t newline = piece.find('\n');
    at += newline == std::string_view::npos ? piece.size() : newline + 1;
    const std::string_view line = piece.substr(0, newline);
    return line.substr(0, line.find('\0'));
}

std::string settings_value(std::string_view content, std::string_view key, std::string_view otherwise) {
    for (size_t at = 0; auto line = settings_line(content, at);) {
        if (const size_t place = line->find(key); place != std::string_view::npos) {
            std::string_view value = line->substr(place + key.size());
            const bool line_end = content[at - 1] == '\n' && !value.empty() && value.back() == '\r';
            return std::string(value.substr(0, value.size() - (line_end ? 1 : 0)));
        }
    }
    return std::string(otherwise);
}

std::optional<std::string> settings_read(const std::string& path, size_t max) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!is_readable(file, max)) {
        return std::nullopt;
    }
    std::string content;
    char bytes[16384];
    ssize_t count = 0;
    while (content.size() <= max && (count = read(file.fd, bytes, sizeof bytes)) > 0) {
        content.append(bytes, static_cast<size_t>(count));
    }
    if (count < 0) {
        return std::nullopt;
    }
    content.resize(std::min(content.size(), max));
    return content;
}
