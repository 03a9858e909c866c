#include "service/tavor_reply.h"

#include "base/monotonic.h"
#include "base/stop_request.h"
#include "service/tavor_rows.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/time.h>

static_assert(sizeof(tavor_response) == TAVOR_RESPONSE_SIZE && offsetof(tavor_response, payload) == 8);
static_assert(sizeof(sockaddr_un) == TAVOR_ADDRESS_SIZE);

namespace {

constexpr uint64_t kUsPerSecond = 1000000;
constexpr suseconds_t kRoundUs = 50000; // of waiting; after each one a stop may have been announced
constexpr uint64_t kPatienceUs = kUsPerSecond;
constexpr uint64_t kStopPatienceUs = kUsPerSecond / 2;
constexpr uint64_t kKeptUs = 30 * kUsPerSecond;
constexpr size_t kKeptMax = 16;
constexpr size_t kStalledMax = 8; // with more of them at once each may cost its second anew

struct KeptResult {
    TavorPeer peer;
    tavor_response response;
    uint64_t since_us;
};

struct ReplyState {
    int32_t socket = -1;
    bool waits = false; // the socket has its time-out: without one a send would wait for ever
    std::mutex lock;    // of client and kept; nobody waits while holding it
    TavorPeer client = {};
    KeptResult kept[kKeptMax] = {}; // the oldest first
    size_t kept_count = 0;
    // Of the service's thread only:
    TavorPeer stalled[kStalledMax] = {}; // readers that were waited for in vain, the oldest first
    size_t stalled_count = 0;
    uint64_t stop_since_us = 0; // the first send under the announced stop, 0: none yet
};

ReplyState state;

bool same_peer(const TavorPeer& a, const TavorPeer& b) {
    return a.length == b.length && memcmp(&a.address, &b.address, a.length) == 0;
}

void log_loss() {
    puts("[LOCSERV] ERR: tavor_send_response, sendto error");
}

bool is_result(const tavor_response& response) {
    return response.code != TAVOR_CODE_NMEA && response.code != TAVOR_CODE_POSITION;
}

// Whether the error may be gone at the next try: a full queue, or no memory.
bool passes(int error) {
    return error == EAGAIN || error == ENOBUFS || error == ENOMEM;
}

// Returns 0 or the error number.
int send_once(const TavorPeer& peer, const tavor_response& response, int flags) {
    ssize_t sent = 0;
    do {
        sent = sendto(state.socket, &response, sizeof response, flags,
                      reinterpret_cast<const sockaddr*>(&peer.address), peer.length);
    } while (sent == -1 && errno == EINTR);
    return sent == -1 ? errno : 0;
}

TavorPeer* find_stalled(const TavorPeer& peer) {
    TavorPeer* end = state.stalled + state.stalled_count;
    TavorPeer* found =
        std::find_if(state.stalled, end, [&](const auto& one) { return same_peer(one, peer); });
    return found == end ? nullptr : found;
}

void forget_stalled(TavorPeer* peer) {
    if (peer != nullptr) {
        std::copy(peer + 1, state.stalled + state.stalled_count, peer);
        --state.stalled_count;
    }
}

void remember_stalled(const TavorPeer& peer) {
    if (state.stalled_count == kStalledMax) {
        forget_stalled(state.stalled);
    }
    state.stalled[state.stalled_count++] = peer;
}

bool stop_lets_wait(const tavor_response& response, uint64_t now_us) {
    if (!stop_request_pending()) {
        return true;
    }
    if (state.stop_since_us == 0) {
        state.stop_since_us = now_us;
    }
    return is_result(response) && now_us - state.stop_since_us < kStopPatienceUs;
}

bool has_kept_before(const TavorPeer& peer, size_t count) {
    return std::any_of(state.kept, state.kept + count,
                       [&](const KeptResult& kept) { return same_peer(kept.peer, peer); });
}

void keep(const TavorPeer& peer, const tavor_response& response) {
    if (state.kept_count == kKeptMax) {
        std::copy(state.kept + 1, state.kept + kKeptMax, state.kept);
        --state.kept_count;
        log_loss();
    }
    state.kept[state.kept_count++] = {peer, response, monotonic_us()};
}

// Tries to send a kept result, without waiting. Returns whether it needs to be kept no longer: it is sent,
// too old, or its client is gone. A client gets its results in order, so this one waits while an older one of
// the same client is kept; the older ones are the first `before` of state.kept.
bool settle(const KeptResult& kept, size_t before) {
    const int error =
        has_kept_before(kept.peer, before) ? EAGAIN : send_once(kept.peer, kept.response, MSG_DONTWAIT);
    if (passes(error) && monotonic_us() - kept.since_us < kKeptUs) {
        return false;
    }
    if (error != 0) {
        log_loss();
    }
    if (!passes(error)) {
        forget_stalled(find_stalled(kept.peer));
    }
    return true;
}

void settle_kept() {
    size_t left = 0;
    for (size_t i = 0; i < state.kept_count; ++i) {
        if (!settle(state.kept[i], left)) {
            state.kept[left++] = state.kept[i];
        }
    }
    state.kept_count = left;
}

// Takes over a response that could not be sent.
void keep_or_lose(const TavorPeer& peer, const tavor_response& response, int error) {
    if (passes(error) && is_result(response)) {
        keep(peer, response);
    } else {
        log_loss();
    }
}

TavorPeer current_client() {
    const std::lock_guard<std::mutex> guard(state.lock);
    return state.client;
}

// Whether nothing that is kept has to go to the peer first.
bool is_next(const TavorPeer& peer) {
    const std::lock_guard<std::mutex> guard(state.lock);
    settle_kept();
    return !has_kept_before(peer, state.kept_count);
}

// Returns 0 or the error number. While it waits the main thread may keep an answer for the same peer
// (tavor_reply_failed), so each round looks anew.
int send_waiting(const TavorPeer& peer, const tavor_response& response) {
    const uint64_t start_us = monotonic_us();
    uint64_t now_us = start_us;
    int error = EAGAIN;
    for (bool waits = true; waits && error == EAGAIN && is_next(peer); now_us = monotonic_us()) {
        waits = state.waits && find_stalled(peer) == nullptr && now_us - start_us < kPatienceUs &&
                stop_lets_wait(response, now_us);
        error = send_once(peer, response, waits ? 0 : MSG_DONTWAIT);
    }
    TavorPeer* const stalled = find_stalled(peer);
    if (error == 0) {
        forget_stalled(stalled);
    } else if (stalled == nullptr && now_us - start_us >= kPatienceUs) {
        remember_stalled(peer);
    }
    return error;
}

} // namespace

void tavor_reply_open(int32_t socket) {
    const std::lock_guard<std::mutex> guard(state.lock);
    const timeval round = {.tv_sec = 0, .tv_usec = kRoundUs};
    state.socket = socket;
    state.waits = setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &round, sizeof round) == 0;
    state.client = {.address = {}, .length = sizeof(sockaddr_un)};
    state.kept_count = 0;
    state.stalled_count = 0;
    state.stop_since_us = 0;
}

void tavor_reply_to(const TavorPeer& client) {
    const std::lock_guard<std::mutex> guard(state.lock);
    state.client = client;
}

void tavor_send_response(uint32_t id, uint32_t value, const void* payload, uint32_t length) {
    const TavorRow* row = tavor_row_of_id(id);
    if (row == nullptr) {
        return;
    }
    tavor_response response = {.code = row->code, .value = value, .payload = {}};
    if (payload != nullptr) {
        memcpy(response.payload, payload, std::min<uint32_t>(length, TAVOR_PAYLOAD_SIZE));
    }
    const TavorPeer client = current_client();
    const int error = send_waiting(client, response);
    if (error != 0) {
        const std::lock_guard<std::mutex> guard(state.lock);
        keep_or_lose(client, response, error);
    }
}

void tavor_reply_failed(uint32_t id) {
    const TavorRow* row = tavor_row_of_id(id);
    if (row == nullptr) {
        return;
    }
    const tavor_response response = {.code = row->code, .value = TAVOR_VALUE_FAILED, .payload = {}};
    const std::lock_guard<std::mutex> guard(state.lock);
    const int error = has_kept_before(state.client, state.kept_count)
                          ? EAGAIN
                          : send_once(state.client, response, MSG_DONTWAIT);
    if (error != 0) {
        keep_or_lose(state.client, response, error);
    }
}

bool tavor_reply_retry() {
    if (!stop_request_pending()) {
        state.stop_since_us = 0; // the next stop has its half second whole
    }
    const std::lock_guard<std::mutex> guard(state.lock);
    settle_kept();
    return state.kept_count > 0;
}
