#include "server/clock_file.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace std::chrono;

constexpr int64_t kNsPerSecond = 1000000000;
constexpr mode_t kFileMode = 0600;
constexpr int kFirstYear = 1980;
constexpr int kLastYear = 2200;

int64_t host_clock(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// Maps a new file of zeros. Returns null and sets errno on failure.
void* map_new(const std::string& path) {
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
    if (fd < 0) {
        return nullptr;
    }
    void* memory = ftruncate(fd, sizeof(BoardClock)) != 0
                       ? MAP_FAILED
                       : mmap(nullptr, sizeof(BoardClock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int error = errno;
    close(fd);
    errno = error;
    return memory == MAP_FAILED ? nullptr : memory;
}

} // namespace

std::string clock_file_open(ClockFile& file, const std::string& directory) {
    file.path = directory + "/" + kBoardClockName;
    void* memory = map_new(file.path);
    if (memory == nullptr) {
        return "can't make the clock " + file.path + ": " + strerror(errno);
    }
    file.clock = new (memory) BoardClock();
    return "";
}

void clock_file_close(ClockFile& file) {
    if (file.clock != nullptr) {
        unlink(file.path.c_str());
        munmap(file.clock, sizeof(BoardClock));
        file.clock = nullptr;
    }
}

HostTime clock_host_time() {
    return {host_clock(CLOCK_MONOTONIC), host_clock(CLOCK_REALTIME)};
}

int64_t clock_utc_ns(const BoardClock& clock) {
    return board_clock_now(clock, clock_host_time).utc_ns;
}

std::string clock_text(int64_t utc_ns) {
    const sys_seconds moment = floor<seconds>(sys_time<nanoseconds>(nanoseconds(utc_ns)));
    const sys_days day = floor<days>(moment);
    const year_month_day date(day);
    const hh_mm_ss time(moment - day);
    char text[64];
    snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
             static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
             static_cast<int>(time.seconds().count()));
    return text;
}

bool clock_parse(const std::string& text, int64_t* utc_ns) {
    int y = 0;
    unsigned mo = 0;
    unsigned d = 0;
    unsigned h = 0;
    unsigned mi = 0;
    unsigned s = 0;
    int end = 0;
    if (sscanf(text.c_str(), "%4d-%2u-%2uT%2u:%2u:%2u%n", &y, &mo, &d, &h, &mi, &s, &end) != 6 ||
        (text.substr(static_cast<size_t>(end)) != "Z" && text.size() != static_cast<size_t>(end))) {
        return false;
    }
    const year_month_day date{year(y), month(mo), day(d)};
    if (!date.ok() || y < kFirstYear || y > kLastYear || h > 23 || mi > 59 || s > 59) {
        return false;
    }
    const sys_seconds moment = sys_days(date) + hours(h) + minutes(mi) + seconds(s);
    *utc_ns = duration_cast<nanoseconds>(moment.time_since_epoch()).count();
    return true;
}
