// Output that a signal can end.
#ifndef TAVOR_CLIENT_OUTPUT_H
#define TAVOR_CLIENT_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <string_view>

using OutputTime = std::chrono::steady_clock::time_point;

// Writes the whole text. While nobody reads it waits until the interrupt's descriptor is readable (-1: none)
// or the end has come. Adds what was written to the count. Returns 0 or an error number, EINTR when it has
// waited in vain.
int output_write(int fd, std::string_view text, int interrupt, uint64_t& written,
                 OutputTime end = OutputTime::max());

#endif
