#include "download/tool_time.h"

#include "base/monotonic.h"

#include <sys/time.h>

namespace {

constexpr int64_t kUnset = -1;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kUsPerMs = 1000;

struct State {
    int64_t start_ms = kUnset;
} state;

} // namespace

int64_t tool_time_now_ms() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * kMsPerSecond + now.tv_usec / kUsPerMs;
}

int64_t tool_time_passed_ms() {
    return monotonic_ms();
}

void tool_time_start() {
    if (state.start_ms == kUnset) {
        state.start_ms = tool_time_now_ms();
    }
}

int64_t tool_time_since_start_ms() {
    return tool_time_now_ms() - state.start_ms;
}
