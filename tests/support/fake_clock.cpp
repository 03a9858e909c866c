#include "support/fake_clock.h"

#include "support/capture.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <sys/time.h>

FakeClock fake_clock;

namespace {

constexpr char kTimestampForm[] = "0000-00-00 00:00:00.000 "; // 0: any digit

bool has_form(const std::string& line, const std::string& form) {
    if (line.size() < form.size()) {
        return false;
    }
    for (size_t i = 0; i < form.size(); ++i) {
        const bool digit = isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (form[i] == '0' ? !digit : line[i] != form[i]) {
            return false;
        }
    }
    return true;
}

int64_t time_of_day_ms() {
    return fake_clock.now_ms + fake_clock.set_ms;
}

} // namespace

void fake_clock_start() {
    setenv("TZ", "UTC", 1);
    fake_clock = {};
    fake_clock.started = true;
    fake_clock.now_ms = kFakeNoonMs;
}

void fake_clock_stop() {
    fake_clock.started = false;
}

int64_t fake_clock_slept() {
    return std::accumulate(fake_clock.slept.begin(), fake_clock.slept.end(), int64_t{0});
}

std::vector<std::string> without_stamps(const std::string& log) {
    std::vector<std::string> lines = lines_of(log);
    if (!log.empty() && log.back() != '\n') {
        lines.back() += "<no line end>";
    }
    for (std::string& line : lines) {
        const size_t level = sizeof kTimestampForm - 1;
        const size_t elapsed_end = line.find("] ", level + 4);
        if (has_form(line, kTimestampForm) && elapsed_end != std::string::npos && line[level + 3] == '[') {
            line = line.substr(level, 3) + line.substr(elapsed_end + 1);
        }
    }
    return lines;
}

extern "C" {

time_t __real_time(time_t* now);
int __real_timespec_get(timespec* now, int base);
int __real_gettimeofday(timeval* now, void* zone);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_nanosleep(const timespec* duration, timespec* rest);

time_t __wrap_time(time_t* now) {
    if (!fake_clock.started) {
        return __real_time(now);
    }
    const time_t seconds = fake_clock.time_fails ? -1 : static_cast<time_t>(time_of_day_ms() / 1000);
    fake_clock.now_ms += fake_clock.between_readings_ms;
    if (now != nullptr) {
        *now = seconds;
    }
    return seconds;
}

int __wrap_timespec_get(timespec* now, int base) {
    if (!fake_clock.started) {
        return __real_timespec_get(now, base);
    }
    if (fake_clock.timespec_fails) {
        return 0;
    }
    now->tv_sec = static_cast<time_t>(time_of_day_ms() / 1000);
    now->tv_nsec = static_cast<long>(time_of_day_ms() % 1000 * 1000000);
    fake_clock.now_ms += fake_clock.between_readings_ms;
    return base;
}

int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!fake_clock.started) {
        return __real_gettimeofday(now, zone);
    }
    now->tv_sec = static_cast<time_t>(time_of_day_ms() / 1000);
    now->tv_usec = static_cast<suseconds_t>(time_of_day_ms() % 1000 * 1000);
    return 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (!fake_clock.started) {
        return __real_clock_gettime(clock, now);
    }
    const int64_t ms = clock == CLOCK_MONOTONIC ? fake_clock.now_ms : time_of_day_ms();
    now->tv_sec = static_cast<time_t>(ms / 1000);
    now->tv_nsec = static_cast<long>(ms % 1000 * 1000000);
    return 0;
}

int __wrap_nanosleep(const timespec* duration, timespec* rest) {
    if (!fake_clock.started) {
        return __real_nanosleep(duration, rest);
    }
    if (fake_clock.sleep_fails) {
        errno = EINTR;
        return -1;
    }
    const int64_t ms = static_cast<int64_t>(duration->tv_sec) * 1000 + duration->tv_nsec / 1000000;
    fake_clock.slept.push_back(ms);
    fake_clock.now_ms += ms;
    fake_clock.at_sleep();
    return 0;
}
}
