// The real functions behind the replaced ones.
#ifndef TAVOR_BOARD_REAL_H
#define TAVOR_BOARD_REAL_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <dlfcn.h>

// A function's name as a template argument.
template <size_t Size> struct SymbolName {
    constexpr SymbolName(const char (&name)[Size]) {
        std::copy_n(name, Size, text);
    }
    char text[Size];
};

// The next definition of the named function behind ours: a sanitizer's or the C library's. Looked up at its
// first use, at any time of the process, by any thread.
template <SymbolName Name, typename Function> Function* real() {
    static constinit std::atomic<Function*> found = nullptr;
    Function* function = found.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, Name.text));
        if (function == nullptr) {
            abort(); // not reached with a C library that the program could be linked with
        }
        found.store(function, std::memory_order_release);
    }
    return function;
}

#endif
