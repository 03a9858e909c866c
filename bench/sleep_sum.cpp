// The preloaded side: nanosleep and usleep count, then sleep as before.
#undef _FORTIFY_SOURCE

#include "sleep_sum.h"

#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr uint64_t kNsPerSecond = 1000000000;
constexpr uint64_t kNsPerUs = 1000;

SleepSum* open_sum() {
    const char* path = getenv(kSleepSumVariable);
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(SleepSum), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<SleepSum*>(memory);
}

uint64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

// Sleeps through the function and counts.
template <typename Sleep> int counted(uint64_t ns, const Sleep& sleep) {
    static SleepSum* const sum = open_sum();
    const uint64_t before = now_ns();
    const int result = sleep();
    if (sum != nullptr) {
        sum->requested_ns += ns;
        sum->slept_ns += now_ns() - before;
        ++sum->calls;
    }
    return result;
}

} // namespace

extern "C" int nanosleep(const timespec* requested, timespec* left) {
    using Nanosleep = int(const timespec*, timespec*);
    static auto* const next = reinterpret_cast<Nanosleep*>(dlsym(RTLD_NEXT, "nanosleep"));
    const uint64_t ns =
        static_cast<uint64_t>(requested->tv_sec) * kNsPerSecond + static_cast<uint64_t>(requested->tv_nsec);
    return counted(ns, [&] { return next(requested, left); });
}

extern "C" int usleep(useconds_t us) {
    static auto* const next = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"));
    return counted(us * kNsPerUs, [&] { return next(us); });
}
