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

void stop_request_withdraw() {
    state.announced.fetch_sub(1);
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

StopRequestAside::StopRequestAside() {
    stop_request_withdraw();
}

StopRequestAside::~StopRequestAside() {
    stop_request_announce();
}
