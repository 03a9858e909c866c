// Output that a signal can end.
#ifndef TAVOR_CLIENT_OUTPUT_H
#define TAVOR_CLIENT_OUTPUT_H

#include <cstdint>
#include <string_view>

// Writes the whole text. While nobody reads it waits, without limit, until the interrupt's descriptor is
// readable (-1: none). Adds what was written to the count. Returns 0 or an error number, EINTR when
// interrupted.
int output_write(int fd, std::string_view text, int interrupt, uint64_t& written);

#endif
