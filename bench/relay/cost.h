// What a process has cost so far, by /proc.
#ifndef TAVOR_BENCH_RELAY_COST_H
#define TAVOR_BENCH_RELAY_COST_H

#include <sys/types.h>

struct CostMemory {
    long resident = 0;     // KiB, all pages
    long proportional = 0; // KiB, shared pages by their share
    long own = 0;          // KiB, pages of this process alone
};

// User and system time of all threads, seconds; to the nanosecond, where utime and stime count in ticks.
double cost_seconds(pid_t pid);

CostMemory cost_memory(pid_t pid);

// Buffers of all TCP sockets of the machine, KiB.
long cost_tcp_buffers();

#endif
