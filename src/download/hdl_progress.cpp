#include "download/hdl_progress.h"

#include "base/stop_request.h"
#include "download/tool_log.h"
#include "download/tool_time.h"

namespace {

constexpr int64_t kLimitMs = 2000;

struct State {
    int64_t mark_ms = 0;
    bool given_up = false;
} state;

bool give_up_when(bool due) {
    if (!state.given_up && due && stop_request_pending()) {
        state.given_up = true;
        tool_log_error("download given up: another request waits and the chip makes no progress\n");
    }
    return state.given_up;
}

} // namespace

void hdl_progress_start() {
    state.given_up = false;
    hdl_progress_mark();
}

void hdl_progress_mark() {
    state.mark_ms = tool_time_passed_ms();
}

bool hdl_progress_given_up() {
    return give_up_when(tool_time_passed_ms() - state.mark_ms >= kLimitMs);
}

bool hdl_progress_give_up_now() {
    return give_up_when(true);
}
