#include "server/file_head.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Fills the text from its front, and cuts it there. False with errno set.
bool read_into(int fd, std::string& text) {
    struct stat status = {};
    if (fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode)) {
        errno = ENOTSUP;
        return false;
    }
    size_t size = 0;
    ssize_t got = 1;
    while (got > 0 && size < text.size()) {
        got = read(fd, &text[size], text.size() - size);
        size += static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
    text.resize(size);
    return got >= 0;
}

} // namespace

std::optional<std::string> file_head(const std::string& path, size_t most) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string text(most, '\0');
    const bool good = read_into(fd, text);
    const int error = errno;
    close(fd);
    errno = error;
    return good ? std::optional(text) : std::nullopt;
}
