#include "base/error_row.h"

#include <utility>

namespace {

constexpr int64_t kPauseMs = 1000;

} // namespace

bool error_row_tell(ErrorRow* row, int64_t now_ms, uint32_t* left_out) {
    if (row->failing && now_ms - row->told_ms < kPauseMs) {
        ++row->left_out;
        return false;
    }
    *left_out = std::exchange(row->left_out, 0);
    row->told_ms = now_ms;
    row->failing = true;
    return true;
}

uint32_t error_row_end(ErrorRow* row) {
    row->failing = false;
    return std::exchange(row->left_out, 0);
}
