#include "base/stop_request.h"

#include <atomic>

namespace {

struct State {
    std::atomic<int> announced{0};
} state;

} // namespace

void stop_request_announce() {
    state.announced.fetch_add(1);
}

bool stop_request_withdraw() {
    int announced = state.announced;
    while (announced > 0 && !state.announced.compare_exchange_weak(announced, announced - 1)) {
    }
    return announced > 0;
}

bool stop_request_pending() {
    return state.announced.load() > 0;
}

StopRequest::StopRequest() {
    stop_request_announce();
}

StopRequest::~StopRequest() {
    stop_request_withdraw();
}

StopRequestAside::StopRequestAside() : taken(stop_request_withdraw()) {}

StopRequestAside::~StopRequestAside() {
    if (taken) {
        stop_request_announce();
    }
}
