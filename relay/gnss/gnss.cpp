#include "gnss/gnss.h"

#include "hub/hub.h"
#include "system/boot_clock.h"
#include "upstream/positioning.h"

#include <utility>

namespace {

constexpr int kFreshS = 10;

struct GnssState {
    std::chrono::milliseconds second{1000};
    GnssReader reader;
    GnssEpoch latest;
    BootClock::time_point told; // the latest; it is old behind a suspend
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

} // namespace

void gnss_open(std::chrono::milliseconds second) {
    state = {};
    state.second = second;
    hub_take_behind([](const HubItem& item) {
        if (item.kind == HubKind::kSentence) {
            gnss_reader_take(state.reader, hub_text(item), tell, nullptr);
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
