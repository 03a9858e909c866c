#include "download/tool_log.h"

#include "download/tool_time.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

constexpr size_t kTimestampSize = 24;
constexpr size_t kElapsedSize = 20;
constexpr double kMsPerSecond = 1000;
constexpr int64_t kNsPerMs = 1'000'000;

struct State {
    char timestamp[kTimestampSize] = {};
    char elapsed[kElapsedSize] = {};
    bool reporting = false; // a clock that fails is reported once, not again by the report's own stamp
} state;

// Seconds and the fraction of the second from one reading: two readings could fall into different seconds,
// and the stamp would jump back by one.
timespec read_clock() {
    timespec now = {};
    if (timespec_get(&now, TIME_UTC) != 0) {
        return now;
    }
    if (!state.reporting) {
        state.reporting = true;
        tool_log_error("timespec_get ERROR!\n");
        state.reporting = false;
    }
    return {time(nullptr), 0};
}

unsigned field(int64_t value, int64_t modulus) {
    return static_cast<unsigned>(value % modulus);
}

// The stamps are made before the stream is taken: a clock that fails logs a line of its own. Holding the
// stream until funlockfile keeps other threads' lines out of this one.
void begin_line(const char* level) {
    const char* timestamp = tool_log_timestamp();
    const char* elapsed = tool_log_elapsed();
    flockfile(stdout);
    printf("%s [%s]%s ", timestamp == nullptr ? "" : timestamp, level, elapsed);
}

} // namespace

const char* tool_log_timestamp() {
    const timespec now = read_clock();
    if (now.tv_sec < 1) {
        return nullptr;
    }
    tzset(); // localtime_r alone would not notice a changed time zone
    tm local = {};
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        return nullptr;
    }
    snprintf(state.timestamp, sizeof state.timestamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u",
             field(local.tm_year + 1900LL, 10000), field(local.tm_mon + 1, 100), field(local.tm_mday, 100),
             field(local.tm_hour, 100), field(local.tm_min, 100), field(local.tm_sec, 100),
             field(now.tv_nsec / kNsPerMs, 1000));
    return state.timestamp;
}

const char* tool_log_elapsed() {
    const auto seconds = static_cast<double>(tool_time_since_start_ms()) / kMsPerSecond;
    snprintf(state.elapsed, sizeof state.elapsed, "[%8.3f]", seconds);
    return state.elapsed;
}

void tool_log_error(const char* format, ...) {
    begin_line("E");
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    funlockfile(stdout);
}

void tool_log_info(const char* format, ...) {
    begin_line("I");
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    funlockfile(stdout);
}
