#include "interpose/fail.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

struct Order {
    const char* function;
    int calls_left; // 0: none
    int error;
};

// Usable before any constructor has run.
struct FailState {
    std::atomic<int> orders_open; // none: a call costs one load
    std::mutex lock;              // guards what stands below
    std::array<Order, 32> orders;
} state = {0,
           {},
           {{{"open", 0, 0},
             {"openat", 0, 0},
             {"read", 0, 0},
             {"write", 0, 0},
             {"close", 0, 0},
             {"ioctl", 0, 0},
             {"access", 0, 0},
             {"stat", 0, 0},
             {"lstat", 0, 0},
             {"unlink", 0, 0},
             {"remove", 0, 0},
             {"rmdir", 0, 0},
             {"mkdir", 0, 0},
             {"chmod", 0, 0},
             {"rename", 0, 0},
             {"realpath", 0, 0},
             {"fopen", 0, 0},
             {"fwrite", 0, 0},
             {"fclose", 0, 0},
             {"socket", 0, 0},
             {"bind", 0, 0},
             {"connect", 0, 0},
             {"sendto", 0, 0},
             {"listen", 0, 0},
             {"accept", 0, 0},
             {"setsockopt", 0, 0},
             {"msgget", 0, 0},
             {"msgsnd", 0, 0},
             {"timer_create", 0, 0},
             {"sem_init", 0, 0},
             {"pthread_mutex_init", 0, 0},
             {"pthread_create", 0, 0}}}};

thread_local int uncounted = 0;

Order* find(const char* function) {
    for (Order& order : state.orders) {
        if (strcmp(order.function, function) == 0) {
            return &order;
        }
    }
    return nullptr;
}

} // namespace

void interpose_fail(const char* function, int nth, int error) {
    const std::lock_guard hold(state.lock);
    Order* order = find(function);
    if (order == nullptr || nth < 1) {
        fprintf(stderr, "interpose_fail: no function %s, or no call %d\n", function, nth);
        abort();
    }
    state.orders_open += order->calls_left == 0 ? 1 : 0;
    order->calls_left = nth;
    order->error = error;
}

void interpose_fail_reset() {
    const std::lock_guard hold(state.lock);
    for (Order& order : state.orders) {
        order.calls_left = 0;
    }
    state.orders_open = 0;
}

int interpose_fail_now(const char* function) {
    if (state.orders_open == 0 || uncounted > 0) {
        return 0;
    }
    const std::lock_guard hold(state.lock);
    Order* order = find(function);
    if (order == nullptr || order->calls_left == 0 || --order->calls_left > 0) {
        return 0;
    }
    --state.orders_open;
    return order->error;
}

InterposeUncounted::InterposeUncounted() {
    ++uncounted;
}

InterposeUncounted::~InterposeUncounted() {
    --uncounted;
}
