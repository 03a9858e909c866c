// Streams that fail to close.
#ifndef TAVOR_TESTS_CLOSE_FAULT_H
#define TAVOR_TESTS_CLOSE_FAULT_H

#include <string>

// The n-th closing from now on (1: the next) of a stream on a file whose path ends like this fails. One order
// at a time, gone once it has struck.
void close_fault_arm(const std::string& path_end, int nth = 1);
void close_fault_disarm();

#endif
