#include "base/cancel_hold.h"

#include <pthread.h>

namespace {

struct State {
    int depth = 0;
    int state_before = PTHREAD_CANCEL_ENABLE; // of the outermost hold
};
thread_local State state;

} // namespace

CancelHold::CancelHold() {
    if (state.depth++ == 0) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state.state_before);
    }
}

CancelHold::~CancelHold() {
    if (--state.depth == 0) {
        pthread_setcancelstate(state.state_before, nullptr);
    }
}

void cancel_hold_offer() {
    if (state.depth == 0) {
        pthread_testcancel();
        return;
    }
    pthread_setcancelstate(state.state_before, nullptr);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
