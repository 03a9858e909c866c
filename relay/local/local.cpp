#include "local/local.h"

#include "local/local_clients.h"
#include "local/local_socket.h"
#include "system/event_guard.h"
#include "system/rights.h"
#include "system/seldom.h"
#include "upstream/positioning.h"

#include <cstdio>
#include <string>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace {

constexpr int kReadsMax = 64; // in one go: others get their turn
constexpr std::chrono::milliseconds kRetry{20};
constexpr int kLookS = 10;
constexpr int kOpenRequestsMax = 16; // of one client
constexpr size_t kClientsMax = 1024; // of all users but root
constexpr size_t kPlacesForFew = 24; // the last ones: for users who have fewer than these clients
constexpr size_t kFewClients = 4;
constexpr uid_t kUnknownUser = static_cast<uid_t>(-1);
constexpr int kUserRequestsMax = 64; // of one user, besides starts: these share one request to the daemon

struct LocalState {
    LocalSettings settings;
    EventPtr readable;
    EventPtr retry;
    EventPtr look;
    Seldom refusals;
    Seldom too_many;
    std::unordered_map<uid_t, int> open_requests; // by user
};

LocalState state;

tavor_response result_of(uint32_t code, uint32_t value) {
    tavor_response response = {};
    response.code = code;
    response.value = value;
    return response;
}

// Forgets those that are gone, and tries again soon where something waits.
void settle() {
    if (local_clients_tidy() && event_pending(state.retry.get(), EV_TIMEOUT, nullptr) == 0) {
        event_arm(state.retry, kRetry);
    }
}

void count_failure(uint32_t value) {
    hub_counters().requests_failed += value == 0 ? 0 : 1;
}

void answer(LocalClient& client, uint32_t type, uint32_t value) {
    --client.open_requests;
    local_clients_send(client, result_of(*upstream_requests_code(type), value));
    if (type == TAVOR_REQUEST_START) {
        tavor_response banner = result_of(TAVOR_CODE_NMEA, 0);
        upstream_banner().copy(reinterpret_cast<char*>(banner.payload), sizeof banner.payload);
        local_clients_send(client, banner);
    }
}

// Finds the asker again; it may have left, and its address may be another's.
void answer_asker(const std::string& address, uint64_t id, uint32_t type, uint32_t value) {
    LocalClient* const asker = local_clients_find(address, id);
    if (asker != nullptr) {
        answer(*asker, type, value);
        settle();
    }
}

// The answer, after what the daemon sent before it. No client: nobody gets it.
UpstreamAnswer answer_to(LocalClient* client, uint32_t type) {
    if (client == nullptr) {
        return count_failure;
    }
    ++client->open_requests;
    return [address = client->address, id = client->id, type](uint32_t value) {
        count_failure(value);
        hub_after([=] { answer_asker(address, id, type, value); });
    };
}

// An answer that counts for the user until it comes, also when the client has left. An empty one when the
// user has no more places.
UpstreamAnswer counted(uid_t user, UpstreamAnswer answer) {
    if (state.open_requests[user] >= kUserRequestsMax) {
        return nullptr;
    }
    ++state.open_requests[user];
    return [user, answer = std::move(answer)](uint32_t value) {
        if (--state.open_requests[user] == 0) {
            state.open_requests.erase(user);
        }
        answer(value);
    };
}

bool takes_right(uint32_t type) {
    return type == TAVOR_REQUEST_DOWNLOAD || type == TAVOR_REQUEST_COMMAND ||
           (type >= TAVOR_REQUEST_DEBUG_OFF && type <= TAVOR_REQUEST_DEBUG_TCP);
}

bool has_right(const LocalRequest& received) {
    return received.user && rights_admin(*received.user, received.group);
}

void refuse(LocalClient* client, const LocalRequest& received) {
    const uint32_t type = received.request.type;
    ++hub_counters().refused;
    if (const auto more = seldom(state.refusals, RelayClock::now())) {
        printf("tavor-relay: request %u of user %d is refused: it takes root or group %s (%d more before)\n",
               type, received.user ? static_cast<int>(*received.user) : -1, kRightsGroup, *more);
    }
    answer_to(client, type)(TAVOR_VALUE_FAILED);
}

uid_t user_of(const LocalRequest& received) {
    return received.user.value_or(kUnknownUser);
}

void subscribe(LocalClient* client, unsigned gets) {
    if (client != nullptr) {
        local_clients_subscribe(*client, gets);
    }
}

void unsubscribe(LocalClient* client) {
    if (client != nullptr) {
        local_clients_unsubscribe(*client, kLocalSentences | kLocalChip);
    }
}

void perform(LocalClient* client, const LocalRequest& received) {
    const uint32_t type = received.request.type;
    if (type == TAVOR_REQUEST_START) {
        subscribe(client, kLocalSentences | kLocalChip);
        return positioning_start(answer_to(client, type));
    }
    const UpstreamAnswer reply = answer_to(client, type);
    UpstreamAnswer answer = counted(user_of(received), reply);
    if (!answer) {
        return reply(TAVOR_VALUE_FAILED);
    }
    switch (type) {
    case TAVOR_REQUEST_STOP:
        unsubscribe(client);
        return positioning_stop(has_right(received), std::move(answer));
    case TAVOR_REQUEST_DOWNLOAD:
        return positioning_download(std::move(answer));
    case TAVOR_REQUEST_COMMAND:
        subscribe(client, kLocalChip);
        break;
    case TAVOR_REQUEST_ASSIST:
        subscribe(client, kLocalAssistance);
        break;
    default:
        break;
    }
    upstream_request(type, received.request.text, std::move(answer));
}

// No one user takes all places: the last 24 are for users with fewer than four clients. Root has a place
// always, so that somebody can look who holds the others.
bool has_place(const LocalRequest& received) {
    if (received.address.empty() || local_clients_is_known(received.address) || user_of(received) == 0) {
        return true;
    }
    const size_t count = local_clients_count();
    return count < kClientsMax - kPlacesForFew ||
           (count < kClientsMax && local_clients_count_of(user_of(received)) < kFewClients);
}

void turn_away(const LocalRequest& received) {
    ++hub_counters().ignored;
    if (const auto more = seldom(state.too_many, RelayClock::now())) {
        printf("tavor-relay: a client is refused: there are %zu (%d more before)\n", local_clients_count(),
               *more);
    }
    if (const auto code = upstream_requests_code(received.request.type)) {
        local_clients_send_other(received.address, result_of(*code, TAVOR_VALUE_FAILED));
    }
}

// Null for a sender without an address: it can be sent nothing, but its requests are carried out.
LocalClient* client_of(const LocalRequest& received) {
    return received.address.empty() ? nullptr : &local_clients_of(received.address, user_of(received));
}

void take(const LocalRequest& received) {
    if (!has_place(received)) {
        return turn_away(received);
    }
    LocalClient* const client = client_of(received);
    const uint32_t type = received.request.type;
    if (!upstream_requests_code(type)) {
        return subscribe(client, kLocalSentences | kLocalChip);
    }
    const bool ignored = client == nullptr ? type == TAVOR_REQUEST_START // nobody would get the output
                                           : client->open_requests >= kOpenRequestsMax;
    if (ignored) {
        ++hub_counters().ignored;
        return;
    }
    ++hub_counters().requests;
    if (takes_right(type) && !has_right(received)) {
        return refuse(client, received);
    }
    perform(client, received);
}

void on_readable(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    for (int i = 0; i < kReadsMax; ++i) {
        LocalRequest received = {};
        const LocalReceived result = local_socket_receive(state.settings.fd, received);
        if (result == LocalReceived::kNothing) {
            break;
        }
        if (result == LocalReceived::kMalformed) {
            ++hub_counters().malformed;
        } else {
            take(received);
        }
    }
    settle();
}

void on_retry(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    local_clients_retry();
    settle();
}

void on_look(evutil_socket_t /*unused*/, short /*unused*/, void* /*unused*/) {
    local_clients_look();
    settle();
}

unsigned gets_of(HubKind kind) {
    switch (kind) {
    case HubKind::kChip:
        return kLocalChip;
    case HubKind::kAssistance:
        return kLocalAssistance;
    default:
        return kLocalSentences;
    }
}

} // namespace

void local_open(event_base* base, const LocalSettings& settings) {
    state = {};
    state.settings = settings;
    local_clients_open(settings.fd, settings.second);
    state.readable.reset(event_new(base, settings.fd, EV_READ | EV_PERSIST, on_readable, nullptr));
    state.retry.reset(event_new(base, -1, 0, on_retry, nullptr));
    state.look.reset(event_new(base, -1, EV_PERSIST, on_look, nullptr));
    event_add(state.readable.get(), nullptr);
    event_arm(state.look, kLookS * settings.second);
    hub_take([](const HubItem& item) {
        if (local_clients_count() == 0) {
            return;
        }
        local_clients_send_all(gets_of(item.kind), item.datagram);
        settle();
    });
}

void local_close() {
    local_clients_close();
    const int fd = state.settings.fd;
    state = {};
    if (fd >= 0) {
        close(fd);
    }
}
