// Closes a descriptor on every way out of a scope.
#ifndef TAVOR_DESCRIPTOR_GUARD_H
#define TAVOR_DESCRIPTOR_GUARD_H

#include "base/cancel_hold.h"
#include "base/non_copyable.h"

#include <unistd.h>
#include <utility>

struct DescriptorGuard : private NonCopyable {
    explicit DescriptorGuard(int descriptor) : fd(descriptor) {}
    // close is a cancellation point and a destructor must not be left by one, so cancellation is held off.
    ~DescriptorGuard() {
        if (fd >= 0) {
            const CancelHold hold;
            close(fd);
        }
    }

    // Hands the descriptor to the caller.
    int release() {
        return std::exchange(fd, -1);
    }

    int fd; // -1 when there is none
};

#endif
