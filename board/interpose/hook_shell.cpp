// Replaced functions that shells and the tools of scripts take besides, so that these can drive the board's
// lines: redirection, and copying within the kernel. Not followed are copies by fcntl(), with which a shell
// whose own output is a node (exec >node) redirects single commands, and what a program that is redirected to
// a node writes through the C library's streams.
#include "interpose/backend.h"
#include "interpose/real.h"
#include "interpose/remote.h"

#include <cerrno>
#include <sys/sendfile.h>
#include <unistd.h>

namespace {

using SendFile = ssize_t(int, int, off_t*, size_t);

// The bytes would go past the node: whoever is refused reads and writes.
ssize_t send_file(SendFile* function, int to, int from, off_t* offset, size_t length) {
    if (backend_owns(to) || backend_owns(from)) {
        errno = EINVAL;
        return -1;
    }
    return function(to, from, offset, length);
}

} // namespace

extern "C" {

int dup2(int fd, int copy) noexcept {
    const int result = real<"dup2", int(int, int)>()(fd, copy);
    if (result >= 0) {
        remote_copied(fd, copy);
    }
    return result;
}

ssize_t sendfile(int to, int from, off_t* offset, size_t length) noexcept {
    return send_file(real<"sendfile", SendFile>(), to, from, offset, length);
}

#ifndef __USE_FILE_OFFSET64 // else the headers link sendfile by this name
ssize_t sendfile64(int to, int from, off64_t* offset, size_t length) noexcept {
    return send_file(real<"sendfile64", SendFile>(), to, from, offset, length);
}
#endif

} // extern "C"
