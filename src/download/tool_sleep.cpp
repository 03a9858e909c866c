#include "download/tool_sleep.h"

#include "download/tool_log.h"

#include <ctime>

namespace {

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kNsPerMs = 1'000'000;

} // namespace

void tool_sleep_ms(int64_t ms) {
    timespec duration = {};
    duration.tv_sec = static_cast<time_t>(ms / kMsPerSecond);
    duration.tv_nsec = static_cast<long>(ms % kMsPerSecond * kNsPerMs);
    if (nanosleep(&duration, nullptr) != 0) {
        tool_log_error("\t nanousleep %u not support\n\n", static_cast<unsigned>(ms));
    }
}
