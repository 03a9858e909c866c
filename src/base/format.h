// Formatting whose failure is checked.
#ifndef TAVOR_FORMAT_H
#define TAVOR_FORMAT_H

#include <cstddef>

// snprintf for callers that check the result: in a source of its own, because the compiler knows snprintf,
// takes for granted that a number can be formatted, and drops the check with its log line. Tests put a
// failing one in its place.
int format(char* dst, size_t size, const char* text, ...) __attribute__((format(printf, 3, 4)));

#endif
