#include "upstream/upstream_requests.h"

#include <deque>
#include <utility>
#include <vector>

namespace {

constexpr size_t kWaitingMax = 256;
constexpr int kNoDaemonLimitS = 2;
constexpr int kOrdinaryLimitS = 10;
// A stop waits for a transfer that hangs in the kernel's driver; drivers give up within 30 s as a rule.
constexpr int kStopLimitS = 45;
constexpr int kDownloadLimitS = 30 * 60;

struct RequestRow {
    uint32_t type;
    uint32_t code; // of its answer
    int limit_s;
};

constexpr RequestRow kRows[] = {
    {TAVOR_REQUEST_START, TAVOR_CODE_START, kOrdinaryLimitS},
    {TAVOR_REQUEST_STOP, TAVOR_CODE_STOP, kStopLimitS},
    {TAVOR_REQUEST_DOWNLOAD, TAVOR_CODE_DOWNLOAD, kDownloadLimitS},
    {TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION, kOrdinaryLimitS},
    {TAVOR_REQUEST_DEBUG_OFF, TAVOR_CODE_DEBUG, kOrdinaryLimitS},
    {TAVOR_REQUEST_DEBUG_FILE, TAVOR_CODE_DEBUG, kOrdinaryLimitS},
    {TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_CODE_DEBUG, kOrdinaryLimitS},
    {TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG, kOrdinaryLimitS},
    {TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, kOrdinaryLimitS},
    {TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST, kOrdinaryLimitS},
};

struct Waiting {
    const RequestRow* row = nullptr;
    tavor_request request = {};
    UpstreamAnswer answer;        // empty once the asker has been told
    RelayClock::time_point since; // it waits, and then: it is out
};

struct RequestsState {
    std::deque<Waiting> waiting;
    std::optional<Waiting> out;
    std::chrono::milliseconds second{1000};
};

RequestsState state;

const RequestRow* row_of(uint32_t type) {
    for (const RequestRow& row : kRows) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

// The asker may ask again at once: whatever it was told about must be put away before.
void tell(Waiting& request, uint32_t value) {
    const UpstreamAnswer answer = std::exchange(request.answer, nullptr);
    if (answer) {
        answer(value);
    }
}

bool is_older(const Waiting& request, int limit_s) {
    return RelayClock::now() - request.since >= limit_s * state.second;
}

void expire_out() {
    const int limit_s = state.out->row->limit_s;
    if (!is_older(*state.out, limit_s)) {
        return;
    }
    if (is_older(*state.out, 2 * limit_s)) {
        return upstream_requests_lost();
    }
    tell(*state.out, TAVOR_VALUE_FAILED);
}

} // namespace

void upstream_requests_open(std::chrono::milliseconds second) {
    state = {};
    state.second = second;
}

std::optional<uint32_t> upstream_requests_code(uint32_t type) {
    const RequestRow* const row = row_of(type);
    return row == nullptr ? std::nullopt : std::optional(row->code);
}

bool upstream_requests_add(uint32_t type, std::string_view text, UpstreamAnswer answer) {
    const RequestRow* const row = row_of(type);
    // Positioning lets one start wait at a time, for which there is always a place.
    const size_t limit = kWaitingMax + (type == TAVOR_REQUEST_START ? 1 : 0);
    if (row == nullptr || state.waiting.size() >= limit) {
        return false;
    }
    Waiting one = {row, {}, std::move(answer), RelayClock::now()};
    one.request.type = type;
    text.copy(one.request.text, sizeof one.request.text - 1);
    state.waiting.push_back(std::move(one));
    return true;
}

const tavor_request* upstream_requests_next() {
    return state.out || state.waiting.empty() ? nullptr : &state.waiting.front().request;
}

void upstream_requests_sent() {
    state.out = std::move(state.waiting.front());
    state.waiting.pop_front();
    state.out->since = RelayClock::now();
}

bool upstream_requests_answered(const tavor_response& datagram) {
    const bool chip_sentence = datagram.code == TAVOR_CODE_CHIP && datagram.payload[0] != 0;
    if (!state.out || state.out->row->code != datagram.code || chip_sentence) {
        return false;
    }
    Waiting done = std::move(*state.out);
    state.out.reset();
    tell(done, datagram.value);
    return true;
}

void upstream_requests_expire(bool connected) {
    if (state.out) {
        expire_out();
    }
    // Put away before they are told: an asker may ask again at once.
    std::vector<Waiting> late;
    for (auto one = state.waiting.begin(); one != state.waiting.end();) {
        const bool is_late = is_older(*one, connected ? one->row->limit_s : kNoDaemonLimitS);
        if (is_late) {
            late.push_back(std::move(*one));
        }
        one = is_late ? state.waiting.erase(one) : one + 1;
    }
    for (Waiting& one : late) {
        tell(one, TAVOR_VALUE_FAILED);
    }
}

void upstream_requests_lost() {
    if (state.out) {
        Waiting lost = std::move(*state.out);
        state.out.reset();
        tell(lost, TAVOR_VALUE_FAILED);
    }
}

bool upstream_requests_busy() {
    return state.out.has_value() || !state.waiting.empty();
}
