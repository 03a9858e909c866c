#include "download/hdl_progress.h"

#include "base/stop_request.h"
#include "download/hdl_wait.h"
#include "download/tool_log.h"

namespace {

constexpr int64_t kLimitMs = 2000;

struct State {
    HdlWait since_mark = {};
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
    state.since_mark = hdl_wait_start();
}

bool hdl_progress_given_up() {
    return give_up_when(hdl_wait_elapsed(&state.since_mark) >= kLimitMs);
}

bool hdl_progress_give_up_now() {
    return give_up_when(true);
}
