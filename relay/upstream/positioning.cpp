#include "upstream/positioning.h"

#include "system/event_guard.h"
#include "system/seldom.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr int kSilenceS = 5;
constexpr int kSilenceMaxS = 60;
constexpr int kRetryS = 5;                                               // after a start that failed
constexpr RelayClock::time_point kNever = RelayClock::time_point::min(); // the clock begins with the system

// Starts are not among those that a user may have open, and one stays when its asker has left.
constexpr size_t kAskersMax = 4096;

using Askers = std::shared_ptr<std::vector<UpstreamAnswer>>;

Askers no_askers() {
    return std::make_shared<std::vector<UpstreamAnswer>>();
}

struct PositioningState {
    PositioningSettings settings;
    int wants = 0;
    bool on = false;
    bool left_on = false;        // maybe, by a relay before or a request that failed
    bool held_off = false;       // by a stop for all
    bool starting = false;       // a start waits or is out, after all that ends positioning
    int stopping = 0;            // stops and downloads that wait or are out
    int downloads = 0;           // of these: downloads
    size_t asking = 0;           // those not answered yet, also of starts before a stop
    Askers askers = no_askers(); // of the start that waits or is out, or of the one to come after them
    RelayClock::time_point tried = kNever; // the latest start
    int silence_s = kSilenceS;             // after which the output is taken back
    Seldom failures;
    EventPtr look;
    EventPtr delayed_stop;
};

PositioningState state;

std::chrono::milliseconds seconds(int count) {
    return count * state.settings.second;
}

bool is_wanted() {
    return !state.held_off && (state.settings.always || state.wants > 0);
}

void evaluate();

void started(const Askers& askers, uint32_t value) {
    if (askers == state.askers) { // else it has been ended since
        state.askers = no_askers();
        state.starting = false;
        state.on = value == 0;
        state.left_on = state.left_on && !state.on;
    }
    const auto more = value == 0 ? std::nullopt : seldom(state.failures, RelayClock::now());
    if (more) {
        printf("tavor-relay: positioning could not be started (%d more before)\n", *more);
    }
    state.asking -= askers->size();
    for (const UpstreamAnswer& answer : *askers) {
        answer(value);
    }
    evaluate();
}

void send_start() {
    state.starting = true;
    state.tried = RelayClock::now();
    upstream_request(TAVOR_REQUEST_START, "",
                     [askers = state.askers](uint32_t value) { started(askers, value); });
}

// Waits for the end of what ends positioning: a download takes longer than a start may wait for its turn.
void start() {
    if (!state.starting && state.stopping == 0) {
        send_start();
    }
}

// A start that was asked for before what ends positioning is answered before it.
void leave_start_in_front() {
    if (!state.starting && !state.askers->empty()) {
        send_start();
    }
    if (state.starting) {
        state.starting = false;
        state.askers = no_askers();
    }
}

// Sends what ends positioning, a stop or a download. After one that failed it may be on, after a stop it is
// taken to be: it is tried again as after a consumer that has left.
void end_by(uint32_t type, UpstreamAnswer answer) {
    const int download = type == TAVOR_REQUEST_DOWNLOAD ? 1 : 0;
    leave_start_in_front();
    ++state.stopping;
    state.downloads += download;
    state.on = state.left_on = false;
    upstream_request(type, "", [download, answer = std::move(answer)](uint32_t value) {
        --state.stopping;
        state.downloads -= download;
        state.left_on = value != 0 && upstream_connected();
        state.on = state.left_on && download == 0 && state.stopping == 0;
        state.tried = kNever;
        answer(value);
        if (!state.askers->empty()) {
            start();
        }
        evaluate();
    });
}

// Beside a download of others it would end that: armed anew after what ends positioning anyway.
void on_delayed_stop(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    if (!is_wanted() && state.stopping == 0 && (state.on || state.left_on)) {
        end_by(TAVOR_REQUEST_STOP, [](uint32_t /*unused*/) {});
    }
}

void evaluate() {
    const bool wanted = is_wanted();
    const bool may_retry = RelayClock::now() >= state.tried + seconds(kRetryS);
    if (wanted) {
        event_del(state.delayed_stop.get());
    }
    if (wanted && !state.on && state.stopping == 0 && upstream_connected() && may_retry) {
        start();
    }
    const bool may_be_on = state.on || (state.left_on && upstream_connected());
    if (!wanted && may_be_on && event_pending(state.delayed_stop.get(), EV_TIMEOUT, nullptr) == 0) {
        event_arm(state.delayed_stop, state.settings.stop_delay);
    }
}

// Takes the output back when nothing comes.
void break_silence() {
    const auto silent = RelayClock::now() - std::max(upstream_heard(), state.tried);
    if (upstream_heard() > state.tried + seconds(kSilenceS)) {
        state.silence_s = kSilenceS;
    }
    if (silent >= seconds(state.silence_s)) {
        state.silence_s = std::min(2 * state.silence_s, kSilenceMaxS);
        start();
    }
}

void on_look(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    if (state.on && !upstream_requests_busy()) {
        break_silence();
    }
    evaluate();
}

void on_daemon(bool connected) {
    state.on = false;
    state.left_on = state.left_on && connected;
    if (connected) {
        state.tried = kNever;
        state.silence_s = kSilenceS;
        evaluate();
    }
}

} // namespace

void positioning_open(event_base* base, const PositioningSettings& settings) {
    state = {};
    state.settings = settings;
    state.left_on = settings.left_on;
    state.look.reset(event_new(base, -1, EV_PERSIST, on_look, nullptr));
    state.delayed_stop.reset(event_new(base, -1, 0, on_delayed_stop, nullptr));
    event_arm(state.look, settings.second / 2);
    upstream_watch(on_daemon);
}

void positioning_close() {
    state = {};
}

void positioning_want(int change) {
    state.wants += change;
    if (state.look) {
        evaluate();
    }
}

void positioning_start(UpstreamAnswer answer) {
    if (state.asking >= kAskersMax) {
        return answer(TAVOR_VALUE_FAILED);
    }
    state.held_off = false;
    if (state.on) {
        return answer(0);
    }
    ++state.asking;
    state.askers->push_back(std::move(answer));
    start();
}

void positioning_stop(bool for_all, UpstreamAnswer answer) {
    state.held_off = state.held_off || for_all;
    if (is_wanted() || (!for_all && state.downloads > 0)) {
        return answer(0);
    }
    end_by(TAVOR_REQUEST_STOP, std::move(answer));
}

void positioning_download(UpstreamAnswer answer) {
    end_by(TAVOR_REQUEST_DOWNLOAD, std::move(answer));
}

bool positioning_is_on() {
    return state.on;
}
