// What the replaced functions have in common.
#ifndef TAVOR_BOARD_HOOK_H
#define TAVOR_BOARD_HOOK_H

#include "interpose/fail.h"
#include "interpose/paths.h"
#include "interpose/real.h"

#include <cerrno>
#include <pthread.h>
#include <string>

// Whether this call of the function is to fail; errno is set then.
inline bool hook_fails(const char* function) {
    const int error = interpose_fail_now(function);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

// A path as the real function gets it. Allocates for the daemon's fixed paths only.
struct HookPath {
    explicit HookPath(const char* path)
        : mapped(interpose_maps(path) ? interpose_map(path) : std::string()),
          text(mapped.empty() ? path : mapped.c_str()) {}
    HookPath(const HookPath&) = delete;
    HookPath& operator=(const HookPath&) = delete;

    std::string mapped;
    const char* text;
};

// On the device a call on a node is a cancellation point at its entry (read, write, open, close) or not at
// all (ioctl, access): what stands behind the node here is never interrupted halfway.
struct HookCancelHold {
    HookCancelHold() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    }
    ~HookCancelHold() {
        pthread_setcancelstate(previous, nullptr);
    }
    HookCancelHold(const HookCancelHold&) = delete;
    HookCancelHold& operator=(const HookCancelHold&) = delete;

    int previous = PTHREAD_CANCEL_ENABLE;
};

#endif
