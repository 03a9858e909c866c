#include "base/stop_request.h"

#include <atomic>

namespace {

struct State {
    std::atomic<int> announced{0};
} state;

} // namespace

void stop_mark_raise() {
    state.announced.fetch_add(1);
}

void stop_mark_lower() {
    state.announced.fetch_sub(1);
}

bool stop_mark_raised() {
    return state.announced.load() > 0;
}

StopMarkAside::StopMarkAside() {
    stop_mark_lower();
}

StopMarkAside::~StopMarkAside() {
    stop_mark_raise();
}
