// The real functions behind the replaced ones.
#ifndef TAVOR_BOARD_REAL_H
#define TAVOR_BOARD_REAL_H

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <string_view>

// A function's name as a template argument.
template <size_t Size> struct SymbolName {
    constexpr SymbolName(const char (&name)[Size]) {
        std::copy_n(name, Size, text);
    }
    char text[Size];
};

// What the headers link a function with where they give times and file offsets 64 bits on a machine of 32
// (cmake/TavorCompile.cmake).
struct RenamedFunction {
    std::string_view name;
    const char* linked;
};

#if defined(__USE_TIME_BITS64) && __SIZEOF_POINTER__ == 4
constexpr RenamedFunction kRenamedFunctions[] = {
    {"open", "open64"},
    {"openat", "openat64"},
    {"fopen", "fopen64"},
    {"lseek", "lseek64"},
    {"stat", "__stat64_time64"},
    {"lstat", "__lstat64_time64"},
    {"ioctl", "__ioctl_time64"},
    {"setsockopt", "__setsockopt64"},
    {"clock_gettime", "__clock_gettime64"},
    {"time", "__time64"},
    {"gettimeofday", "__gettimeofday64"},
    {"timespec_get", "__timespec_get64"},
    {"nanosleep", "__nanosleep64"},
    {"clock_nanosleep", "__clock_nanosleep_time64"},
    {"select", "__select64"},
    {"ppoll", "__ppoll64"},
    {"timer_settime", "__timer_settime64"},
    {"timer_gettime", "__timer_gettime64"},
    {"sem_timedwait", "__sem_timedwait64"},
    {"sem_clockwait", "__sem_clockwait64"},
    {"pthread_mutex_timedlock", "__pthread_mutex_timedlock64"},
    {"pthread_mutex_clocklock", "__pthread_mutex_clocklock64"},
    {"pthread_cond_clockwait", "__pthread_cond_clockwait64"},
};
#else
constexpr std::array<RenamedFunction, 0> kRenamedFunctions;
#endif

constexpr const char* linked_name(const char* name) {
    for (const RenamedFunction& renamed : kRenamedFunctions) {
        if (renamed.name == name) {
            return renamed.linked;
        }
    }
    return name;
}

// The next definition of the named function after ours: a sanitizer's or the C library's. Looked up at its
// first use, at any time of the process, by any thread.
template <SymbolName Name, typename Function> Function* real() {
    static constinit std::atomic<Function*> found = nullptr;
    Function* function = found.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, linked_name(Name.text)));
        if (function == nullptr) {
            abort(); // not reached with a C library that the program could be linked with
        }
        found.store(function, std::memory_order_release);
    }
    return function;
}

#endif
