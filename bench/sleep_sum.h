// Sums what a program asked to sleep and what it slept: a library that is preloaded into it, and a file that
// both map.
#ifndef TAVOR_BENCH_SLEEP_SUM_H
#define TAVOR_BENCH_SLEEP_SUM_H

#include <atomic>
#include <cstdint>

// Names the file, which the reader makes with this size.
inline constexpr char kSleepSumVariable[] = "TAVOR_BENCH_SLEEP_SUM";

struct SleepSum {
    std::atomic<uint64_t> requested_ns;
    std::atomic<uint64_t> slept_ns;
    std::atomic<uint64_t> calls;
};

#endif
