#include "mux/host_mux_lock.h"

#include "base/cancel_hold.h"
#include "base/non_copyable.h"
#include "base/stop_lock.h"
#include "base/stop_request.h"

#include <algorithm>
#include <atomic>
#include <unistd.h>

namespace {

constexpr uint32_t kLongestPauseUs = 300000;
constexpr useconds_t kLetInUs = 100;

struct State {
    std::atomic<int> waiting{0}; // threads that wait for a mutex
} state;

struct Waiting : private NonCopyable {
    Waiting() {
        state.waiting.fetch_add(1);
    }
    ~Waiting() {
        state.waiting.fetch_sub(1);
    }
};

} // namespace

bool host_mux_next_round(HostMuxPause* pause) {
    if (stop_request_pending()) {
        return false;
    }
    usleep(pause->us); // under the hold: cancellation takes effect after it
    pause->us = std::min(2 * pause->us, kLongestPauseUs);
    cancel_hold_offer();
    return !stop_request_pending();
}

bool host_mux_take(port_platform_mutex mutex) {
    if (mutex == nullptr) {
        return false;
    }
    if (state.waiting.load() > 0) {
        usleep(kLetInUs); // re-locking at once would starve the waiter
    }
    if (pthread_mutex_trylock(mutex) == 0) {
        return true;
    }
    const Waiting waiting;
    while (!stop_lock_round(mutex)) {
        cancel_hold_offer();
    }
    return true;
}
