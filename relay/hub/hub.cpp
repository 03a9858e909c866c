#include "hub/hub.h"

#include "system/event_guard.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <utility>
#include <vector>

namespace {

constexpr size_t kItemsMax = 1024;
constexpr std::chrono::milliseconds kTurn{1};

// An item, or what is to be called in its place.
struct Waiting {
    HubItem item = {};
    std::function<void()> call;
};

struct HubState {
    std::vector<HubOutput> outputs;
    std::vector<HubOutput> last;
    std::vector<HubRest> rests;
    std::deque<Waiting> waiting;
    size_t items = 0; // of what waits
    EventPtr hand_out;
    HubCounters counters;
};

HubState state;

std::optional<HubKind> kind_of(const tavor_response& datagram) {
    switch (datagram.code) {
    case TAVOR_CODE_NMEA:
        return HubKind::kSentence;
    case TAVOR_CODE_POSITION:
        return HubKind::kPosition;
    case TAVOR_CODE_CHIP: // without a sentence: the result of a command, of which nobody waits any more
        return datagram.payload[0] != 0 ? std::optional(HubKind::kChip) : std::nullopt;
    case TAVOR_CODE_ASSIST_RESULT:
        return HubKind::kAssistance;
    default:
        return std::nullopt;
    }
}

bool is_item(const Waiting& one) {
    return !one.call;
}

bool is_droppable(const Waiting& one) {
    return is_item(one) && hub_may_drop(one.item.datagram.code);
}

// Drops the oldest sentence or position, or else the oldest item.
void make_room() {
    if (state.items < kItemsMax) {
        return;
    }
    auto oldest = std::find_if(state.waiting.begin(), state.waiting.end(), is_droppable);
    if (oldest == state.waiting.end()) {
        oldest = std::find_if(state.waiting.begin(), state.waiting.end(), is_item);
    }
    state.waiting.erase(oldest);
    --state.items;
    ++state.counters.dropped_in;
}

void count(HubKind kind) {
    ++state.counters.items;
    state.counters.sentences += kind == HubKind::kSentence ? 1 : 0;
    state.counters.positions += kind == HubKind::kPosition ? 1 : 0;
}

void hand_out(const HubItem& item) {
    for (const auto* outputs : {&state.outputs, &state.last}) {
        for (const HubOutput& output : *outputs) {
            output(item);
        }
    }
}

void hand_out_one() {
    const Waiting& one = state.waiting.front(); // outputs and calls may add to what waits, not take away
    one.call ? one.call() : hand_out(one.item);
    state.items -= is_item(one) ? 1 : 0;
    state.waiting.pop_front();
}

void on_hand_out(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    hub_hand_out();
}

} // namespace

void hub_open(event_base* base) {
    state = {};
    state.hand_out.reset(event_new(base, -1, 0, on_hand_out, nullptr));
}

void hub_close() {
    state = {};
}

void hub_take(HubOutput output) {
    state.outputs.push_back(std::move(output));
}

void hub_take_last(HubOutput output) {
    state.last.push_back(std::move(output));
}

void hub_take_rest(HubRest rest) {
    state.rests.push_back(std::move(rest));
}

void hub_put(const tavor_response& datagram, std::optional<HubTime> arrived) {
    const std::optional<HubKind> kind = kind_of(datagram);
    if (!kind) {
        ++state.counters.malformed;
        return;
    }
    make_room();
    count(*kind);
    state.waiting.push_back({{*kind, datagram, arrived}, nullptr});
    ++state.items;
}

void hub_after(std::function<void()> call) {
    if (state.waiting.empty()) {
        return call();
    }
    state.waiting.push_back({{}, std::move(call)});
}

void hub_hand_out() {
    const auto began = std::chrono::steady_clock::now();
    while (!state.waiting.empty()) {
        const Waiting& one = state.waiting.front();
        const bool complete =
            !is_item(one) || one.item.kind != HubKind::kPosition; // else its sentence follows
        hand_out_one();
        if (complete && std::chrono::steady_clock::now() - began >= kTurn && !state.waiting.empty()) {
            return event_arm(state.hand_out, std::chrono::milliseconds(0));
        }
    }
    for (const HubRest& rest : state.rests) {
        rest();
    }
}

std::string_view hub_text(const HubItem& item) {
    const auto* const text = reinterpret_cast<const char*>(item.datagram.payload);
    return {text, strnlen(text, sizeof item.datagram.payload)};
}

bool hub_may_drop(uint32_t code) {
    return code == TAVOR_CODE_NMEA || code == TAVOR_CODE_POSITION;
}

HubCounters& hub_counters() {
    return state.counters;
}
