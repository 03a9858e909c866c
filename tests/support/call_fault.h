// Functions of the C library that fail on demand, in programs that link tavor_call_fault.
#ifndef TAVOR_TESTS_CALL_FAULT_H
#define TAVOR_TESTS_CALL_FAULT_H

#include <functional>

inline constexpr int kNoFault = -1;
inline constexpr int kEachCall = -2;

// Calls that succeed before one fails, which strikes once; or one of the above.
struct CallFaults {
    int malloc = kNoFault;
    int calloc = kNoFault;
    int strdup = kNoFault;
    int realpath = kNoFault;
    int fdopen = kNoFault;
    int fclose = kNoFault; // the stream is gone all the same
    int fseeko = kNoFault;
    int fread = kNoFault; // with the mark of a failed stream, as fgets
    int fgets = kNoFault;
    int fwrite = kNoFault; // half of it is taken
    int remove = kNoFault;
    std::function<void()> at_read = {};            // before each fread
    std::function<void(const char*)> at_line = {}; // sees each line that fgets reads
};

extern CallFaults call_faults;

#endif
