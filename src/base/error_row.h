// The log lines of a call that keeps failing: at most one per second, with the count of those left out.
#ifndef TAVOR_ERROR_ROW_H
#define TAVOR_ERROR_ROW_H

#include <cstdint>

// One call's failures in a row, without a success between them.
struct ErrorRow {
    bool failing = false;
    int64_t told_ms = 0;
    uint32_t left_out = 0; // since the last line
};

// The call has failed at now_ms, by a clock that nobody sets. Returns whether to log it; then left_out is the
// count of failures that were left out since the last line.
bool error_row_tell(ErrorRow* row, int64_t now_ms, uint32_t* left_out);

// The call has succeeded: the row is over. Returns the failures that were left out since its last line.
uint32_t error_row_end(ErrorRow* row);

#endif
