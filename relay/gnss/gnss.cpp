#include "gnss/gnss.h"

#include "hub/hub.h"
#include "system/boot_clock.h"
#include "upstream/positioning.h"

#include <utility>

namespace {

constexpr int kFreshS = 10;
constexpr std::chrono::seconds kSilence{10}; // what was heard before is of another time

struct GnssState {
    std::chrono::milliseconds second{1000};
    GnssReader reader;
    BootClock::time_point heard; // the latest sentence
    GnssEpoch latest;
    BootClock::time_point told; // the latest; it is old after a suspend
    std::vector<GnssOutput> outputs;
};

GnssState state;

void tell(void* /*unused*/, const GnssEpoch& epoch) {
    state.latest = epoch;
    state.told = BootClock::now();
    for (const GnssOutput& output : state.outputs) {
        output(epoch);
    }
}

void take(std::string_view sentence) {
    const auto now = BootClock::now();
    if (now - state.heard > kSilence) {
        gnss_reader_forget(state.reader);
    }
    state.heard = now;
    gnss_reader_take(state.reader, sentence, tell, nullptr);
}

} // namespace

void gnss_open(std::chrono::milliseconds second) {
    state = {};
    state.second = second;
    hub_take_last([](const HubItem& item) {
        if (item.kind == HubKind::kSentence) {
            take(hub_text(item));
        }
    });
}

void gnss_close() {
    state = {};
}

void gnss_take(GnssOutput output) {
    state.outputs.push_back(std::move(output));
}

const GnssEpoch& gnss_latest() {
    const auto age = BootClock::now() - state.told;
    if (!upstream_connected() || !positioning_is_on() || age > kFreshS * state.second) {
        state.latest = {};
    }
    return state.latest;
}
