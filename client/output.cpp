#include "client/output.h"

#include "base/descriptor_guard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds kLongestPoll{1000};

// Waits until the descriptor takes bytes or has failed. Returns 0, or EINTR when it does neither and a signal
// or the end has come.
int wait_for_room(int fd, int interrupt, OutputTime end) {
    using std::chrono::milliseconds;
    std::array<pollfd, 2> waits = {{{fd, POLLOUT, 0}, {interrupt, POLLIN, 0}}};
    bool over = false;
    while (waits[0].revents == 0 && waits[1].revents == 0 && !over) {
        const auto now = std::chrono::steady_clock::now();
        over = now >= end;
        const auto left =
            over ? milliseconds(0) : std::min(kLongestPoll, std::chrono::ceil<milliseconds>(end - now));
        poll(waits.data(), waits.size(), static_cast<int>(left.count()));
    }
    return waits[0].revents != 0 ? 0 : EINTR;
}

// A terminal takes a part and holds the writer up for the rest, so it is opened once more for writes that
// come back: set for the descriptor itself that would hold for the shell too. -1 for what is no terminal.
int open_unheld(int fd) {
    return isatty(fd) == 0 ? -1
                           : open(("/proc/self/fd/" + std::to_string(fd)).c_str(),
                                  O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

} // namespace

int output_write(int fd, std::string_view text, int interrupt, uint64_t& written, OutputTime end) {
    struct stat status = {};
    const bool file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode); // never holds up
    const DescriptorGuard unheld(file ? -1 : open_unheld(fd));
    const int to = unheld.fd >= 0 ? unheld.fd : fd;
    while (!text.empty()) {
        const int error = file ? 0 : wait_for_room(to, interrupt, end);
        if (error != 0) {
            return error;
        }
        // A pipe that has room takes this many bytes without waiting.
        const size_t size = file ? text.size() : std::min<size_t>(text.size(), PIPE_BUF);
        const ssize_t count = write(to, text.data(), size);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (count <= 0) {
            return count < 0 ? errno : EIO;
        }
        written += static_cast<uint64_t>(count);
        text.remove_prefix(static_cast<size_t>(count));
    }
    return 0;
}
