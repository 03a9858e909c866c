// System calls on the device nodes of a board, one line of output each: what was called, its result, errno's
// name. The same program runs on the kernel's own devices and on the simulated ones; where the lines differ,
// the simulation does.
#ifndef TAVOR_KERNEL_PROBE_H
#define TAVOR_KERNEL_PROBE_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

inline constexpr mode_t kMode = 0600; // of files that an open would make

// Prints "WHAT = RESULT", or "WHAT = -1 ENAME".
__attribute__((format(printf, 2, 3))) void tell(long result, const char* what, ...);

// The same, and after a result that is no failure the bytes or the number that came.
void tell_bytes(long result, const char* what, const void* bytes);
void tell_number(long result, const char* what, uint32_t number);

// Opens for what follows; ends the program when that fails.
int must_open(const char* path, int flags);

void probe_gpio();
void probe_spi();
void probe_i2c();

#endif
