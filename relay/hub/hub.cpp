#include "hub/hub.h"

#include "system/event_guard.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <utility>
#include <vector>

namespace {

constexpr size_t kItemsMax = 1024;

struct HubState {
    std::vector<HubOutput> outputs;
    std::vector<HubOutput> behind;
    std::vector<HubRest> rests;
    std::deque<HubItem> items;
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

void make_room() {
    if (state.items.size() < kItemsMax) {
        return;
    }
    const auto droppable = std::find_if(state.items.begin(), state.items.end(),
                                        [](const HubItem& item) { return hub_may_drop(item.datagram.code); });
    state.items.erase(droppable == state.items.end() ? state.items.begin() : droppable);
    ++state.counters.dropped_in;
}

void count(HubKind kind) {
    ++state.counters.items;
    state.counters.sentences += kind == HubKind::kSentence ? 1 : 0;
    state.counters.positions += kind == HubKind::kPosition ? 1 : 0;
}

void hand_out_one() {
    const HubItem& item = state.items.front(); // only what has come is put in, by no output
    for (const auto* outputs : {&state.outputs, &state.behind}) {
        for (const HubOutput& output : *outputs) {
            output(item);
        }
    }
    state.items.pop_front();
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

void hub_take_behind(HubOutput output) {
    state.behind.push_back(std::move(output));
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
    state.items.push_back({*kind, datagram, arrived});
}

void hub_hand_out(std::chrono::milliseconds turn) {
    const auto began = std::chrono::steady_clock::now();
    while (!state.items.empty()) {
        const bool complete = state.items.front().kind != HubKind::kPosition; // else its sentence follows
        hand_out_one();
        if (complete && std::chrono::steady_clock::now() - began >= turn && !state.items.empty()) {
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
