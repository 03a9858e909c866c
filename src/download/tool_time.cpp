#include "download/tool_time.h"

#include "download/tool_log.h"

#include <cstdio>
#include <ctime>
#include <sys/time.h>

namespace {

constexpr size_t kTimestampSize = 24;
constexpr size_t kElapsedSize = 20;
constexpr int64_t kUnset = -1;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kNsPerMs = 1'000'000;

struct State {
    int64_t start_ms = kUnset;
    char timestamp[kTimestampSize] = {};
    char elapsed[kElapsedSize] = {};
    bool reporting = false; // a clock that fails is reported once, not again by the report's own stamp
} state;

int64_t nanoseconds_now() {
    timespec now = {};
    if (timespec_get(&now, TIME_UTC) == 0 && !state.reporting) {
        state.reporting = true;
        tool_log_error("timespec_get ERROR!\n");
        state.reporting = false;
    }
    return now.tv_nsec;
}

unsigned field(int64_t value, int64_t modulus) {
    return static_cast<unsigned>(value % modulus);
}

} // namespace

const char* tool_log_timestamp() {
    const time_t seconds = time(nullptr);
    if (seconds < 1) {
        return nullptr;
    }
    tzset(); // localtime_r alone would not notice a changed time zone
    tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) {
        return nullptr;
    }
    const int64_t milliseconds = nanoseconds_now() / kNsPerMs;
    snprintf(state.timestamp, sizeof state.timestamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u",
             field(local.tm_year + 1900LL, 10000), field(local.tm_mon + 1, 100), field(local.tm_mday, 100),
             field(local.tm_hour, 100), field(local.tm_min, 100), field(local.tm_sec, 100),
             field(milliseconds, 1000));
    return state.timestamp;
}

const char* tool_log_elapsed() {
    const auto elapsed_ms = static_cast<double>(tool_time_now_ms() - state.start_ms);
    snprintf(state.elapsed, sizeof state.elapsed, "[%8.3f]", elapsed_ms / kMsPerSecond);
    return state.elapsed;
}

void tool_time_start() {
    if (state.start_ms == kUnset) {
        state.start_ms = tool_time_now_ms();
    }
}

int64_t tool_time_now_ms() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * kMsPerSecond + now.tv_usec / kUsPerMs;
}

void tool_sleep_ms(int64_t ms) {
    timespec duration = {};
    duration.tv_sec = static_cast<time_t>(ms / kMsPerSecond);
    duration.tv_nsec = static_cast<long>(ms % kMsPerSecond * kNsPerMs);
    if (nanosleep(&duration, nullptr) != 0) {
        tool_log_error("\t nanousleep %u not support\n\n", static_cast<unsigned>(ms));
    }
}
