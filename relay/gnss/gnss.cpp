#include "gnss/gnss.h"

#include "hub/hub.h"

#include <utility>

namespace {

struct GnssState {
    GnssReader reader;
    GnssEpoch latest;
    std::vector<GnssOutput> outputs;
};

GnssState state;

void tell(void* /*unused*/, const GnssEpoch& epoch) {
    state.latest = epoch;
    for (const GnssOutput& output : state.outputs) {
        output(epoch);
    }
}

} // namespace

void gnss_open() {
    state = {};
    hub_take([](const HubItem& item) {
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
    return state.latest;
}
