// What the fuzz targets share.
#ifndef TAVOR_TESTS_FUZZ_H
#define TAVOR_TESTS_FUZZ_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the program when it does not hold.
inline void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
        abort();
    }
}

// The lines that the code under test logs contain whatever the input contains.
inline void silence_log() {
    static const bool silent = freopen("/dev/null", "w", stdout) != nullptr;
    require(silent, "can't silence the log");
}

// The next piece of a file as fgets takes it with room for this many characters, up to its first NUL; removes
// it from the content, which is not empty.
inline std::string take_piece(std::string* content, size_t most) {
    const size_t line = std::min(content->find('\n'), content->size() - 1) + 1;
    const std::string piece = content->substr(0, std::min(line, most));
    content->erase(0, piece.size());
    return piece.substr(0, piece.find('\0'));
}

#endif
