#include "upstream/positioning.h"

#include "system/event_guard.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

namespace {

constexpr int kSilenceS = 5;
constexpr int kSilenceMaxS = 60;
constexpr int kRetryS = 5; // after a start that failed

struct PositioningState {
    PositioningSettings settings;
    int wants = 0;
    bool on = false;
    bool left_on = false;               // maybe, by a relay before: nobody of now has asked for it
    bool held_off = false;              // by a stop for all
    bool starting = false;              // a start waits or is out
    int stopping = 0;                   // stops and downloads that wait or are out
    std::vector<UpstreamAnswer> askers; // of the start that waits or is out
    RelayClock::time_point tried;       // the latest start
    int silence_s = kSilenceS;          // after which the output is taken back
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

void started(uint32_t value) {
    state.starting = false;
    state.on = value == 0 && state.stopping == 0;
    state.left_on = state.left_on && !state.on;
    if (value != 0) {
        printf("tavor-relay: positioning could not be started\n");
    }
    if (state.stopping > 0) {
        return; // the askers wait for a start behind what stops it
    }
    for (const UpstreamAnswer& answer : std::exchange(state.askers, {})) {
        answer(value);
    }
    evaluate();
}

void start() {
    if (!state.starting) {
        state.starting = true;
        state.tried = RelayClock::now();
        upstream_request(TAVOR_REQUEST_START, "", started);
    }
}

// Sends what ends positioning, a stop or a download. After a stop that failed it is taken to be on: it is
// tried again as after a consumer that has left.
void end_by(uint32_t type, UpstreamAnswer answer) {
    ++state.stopping;
    state.on = state.left_on = false;
    upstream_request(type, "", [type, answer = std::move(answer)](uint32_t value) {
        --state.stopping;
        state.on = type == TAVOR_REQUEST_STOP && value != 0 && upstream_connected();
        state.tried = {};
        answer(value);
        if (state.stopping == 0 && !state.askers.empty()) {
            start();
        }
        evaluate();
    });
}

void on_delayed_stop(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    if (!is_wanted() && (state.on || state.left_on)) {
        end_by(TAVOR_REQUEST_STOP, [](uint32_t /*unused*/) {});
    }
}

void evaluate() {
    const bool wanted = is_wanted();
    const bool may_retry = RelayClock::now() - state.tried >= seconds(kRetryS);
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
        state.tried = {};
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
    state.held_off = false;
    if (state.on) {
        return answer(0);
    }
    state.askers.push_back(std::move(answer));
    start();
}

void positioning_stop(bool for_all, UpstreamAnswer answer) {
    state.held_off = state.held_off || for_all;
    if (is_wanted()) {
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
