#include "upstream/upstream_requests.h"

#include <algorithm>
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
    std::optional<Waiting> out;  // any but a stop
    std::optional<Waiting> stop; // that is out, maybe beside another one
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

// Ends the request that is out.
void end(std::optional<Waiting>& out, uint32_t value) {
    if (out) {
        Waiting done = std::move(*out);
        out.reset();
        tell(done, value);
    }
}

void expire_out(std::optional<Waiting>& out) {
    if (!out || !is_older(*out, out->row->limit_s)) {
        return;
    }
    if (is_older(*out, 2 * out->row->limit_s)) {
        return end(out, TAVOR_VALUE_FAILED);
    }
    tell(*out, TAVOR_VALUE_FAILED);
}

bool is_answer(const std::optional<Waiting>& out, const tavor_response& datagram) {
    const bool chip_sentence = datagram.code == TAVOR_CODE_CHIP && datagram.payload[0] != 0;
    return out && out->row->code == datagram.code && !chip_sentence;
}

bool is_stop(const Waiting& request) {
    return request.row->type == TAVOR_REQUEST_STOP;
}

// The request whose turn it is; the end when it is nobody's.
std::deque<Waiting>::iterator next_one() {
    if (state.stop) {
        return state.waiting.end();
    }
    return state.out ? std::find_if(state.waiting.begin(), state.waiting.end(), is_stop)
                     : state.waiting.begin();
}

// Takes the starts out of the queue that a stop has passed: after it they would undo it.
std::vector<Waiting> take_starts(ptrdiff_t passed) {
    std::vector<Waiting> starts;
    for (auto one = state.waiting.begin(); passed > 0; --passed) {
        const bool is_start = one->row->type == TAVOR_REQUEST_START;
        if (is_start) {
            starts.push_back(std::move(*one));
        }
        one = is_start ? state.waiting.erase(one) : one + 1;
    }
    return starts;
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
    // As a rule one start waits at a time, for which there is always a place.
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
    const auto one = next_one();
    return one == state.waiting.end() ? nullptr : &one->request;
}

void upstream_requests_sent() {
    const auto one = next_one();
    const auto passed = one - state.waiting.begin();
    one->since = RelayClock::now();
    (is_stop(*one) ? state.stop : state.out) = std::move(*one);
    state.waiting.erase(one);
    for (Waiting& start : take_starts(passed)) {
        tell(start, TAVOR_VALUE_FAILED);
    }
}

bool upstream_requests_answered(const tavor_response& datagram) {
    for (std::optional<Waiting>* const out : {&state.out, &state.stop}) {
        if (is_answer(*out, datagram)) {
            end(*out, datagram.value);
            return true;
        }
    }
    return false;
}

void upstream_requests_expire(bool connected) {
    expire_out(state.out);
    expire_out(state.stop);
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
    end(state.out, TAVOR_VALUE_FAILED);
    end(state.stop, TAVOR_VALUE_FAILED);
}

bool upstream_requests_busy() {
    return state.out || state.stop || !state.waiting.empty();
}
