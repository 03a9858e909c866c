// A block of bytes, as the tests hold what goes over a wire or into a file.
#ifndef TAVOR_TESTS_BYTES_H
#define TAVOR_TESTS_BYTES_H

#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

#endif
