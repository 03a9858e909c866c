#include "local/local_clients.h"

#include "local/local_socket.h"
#include "local/local_unread.h"
#include "system/seldom.h"
#include "upstream/positioning.h"

#include <algorithm>
#include <cstdio>
#include <sys/socket.h>
#include <unordered_map>

namespace {

constexpr size_t kSentencesMax = 64;
constexpr int kResultsMax = 16;
constexpr int kPatienceS = 30;
constexpr int kMuchShare = 4; // much is unread: a quarter of the send buffer
constexpr int kUnreadMax =
    256; // of one client while much is unread: two seconds of the usual ten epochs each

struct ClientsState {
    int fd = -1;
    std::chrono::milliseconds second{1000};
    uint64_t last_id = 0;
    int much_unread = 0; // bytes
    bool much = false;
    bool some_paused = false;
    Seldom let_go;
    std::unordered_map<std::string, LocalClient> clients; // by address
};

ClientsState state;

// A sentence of the chip comes unasked too; the result of a command has no payload.
bool may_drop(const tavor_response& response) {
    return hub_may_drop(response.code) || (response.code == TAVOR_CODE_CHIP && response.payload[0] != 0);
}

void let_go(LocalClient& client) {
    client.gone = true;
    ++hub_counters().let_go;
    if (const auto more = seldom(state.let_go, RelayClock::now())) {
        printf("tavor-relay: a client is let go that does not read (%d more before)\n", *more);
    }
}

void make_room(LocalClient& client) {
    const size_t sentences = client.waiting.size() - static_cast<size_t>(client.results);
    if (sentences >= kSentencesMax) {
        client.waiting.erase(std::find_if(client.waiting.begin(), client.waiting.end(), may_drop));
        ++hub_counters().dropped_local;
    }
}

void keep(LocalClient& client, const tavor_response& response) {
    if (client.waiting.empty()) {
        client.taken = RelayClock::now();
    }
    if (may_drop(response)) {
        make_room(client);
    } else if (++client.results > kResultsMax) {
        return let_go(client);
    }
    client.waiting.push_back(response);
}

bool is_paused(const LocalClient& client) {
    return client.unread >= kUnreadMax;
}

LocalSent send_now(LocalClient& client, const tavor_response& response) {
    if (is_paused(client)) {
        return LocalSent::kFull;
    }
    const LocalSent result = local_socket_send(state.fd, client.address, response);
    client.unread += state.much && result == LocalSent::kDone ? 1 : 0;
    return result;
}

// Sends the oldest of what waits until one finds no room.
void send_waiting(LocalClient& client) {
    size_t sent = 0;
    while (!client.gone && sent < client.waiting.size()) {
        const LocalSent result = send_now(client, client.waiting[sent]);
        if (result == LocalSent::kFull) {
            break;
        }
        client.gone = result == LocalSent::kGone;
        client.results -= may_drop(client.waiting[sent]) ? 0 : 1;
        ++sent;
    }
    client.waiting.erase(client.waiting.begin(), client.waiting.begin() + static_cast<ptrdiff_t>(sent));
    const auto now = RelayClock::now();
    client.taken = sent > 0 ? now : client.taken;
    if (client.waiting.empty()) {
        client.waiting.shrink_to_fit();
    } else if (!client.gone && now - client.taken >= kPatienceS * state.second) {
        let_go(client);
    }
}

void want(int change) {
    hub_counters().local_consumers += static_cast<uint64_t>(change);
    positioning_want(change);
}

bool is_over(const LocalClient& client) {
    return client.gone || (client.gets == 0 && client.open_requests == 0 && client.waiting.empty());
}

} // namespace

void local_clients_open(int fd, std::chrono::milliseconds second) {
    state = {};
    state.fd = fd;
    state.second = second;
    int buffer = 0;
    socklen_t size = sizeof buffer;
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, &size);
    state.much_unread = buffer / kMuchShare;
}

void local_clients_close() {
    state = {};
}

LocalClient& local_clients_of(const std::string& address, uid_t user) {
    LocalClient& client = state.clients[address];
    if (client.id == 0) {
        client.address = address;
        client.user = user;
        client.id = ++state.last_id;
        client.unread = state.much ? kUnreadMax : 0; // it may have been let go just now
    }
    return client;
}

bool local_clients_is_known(const std::string& address) {
    return state.clients.count(address) > 0;
}

LocalClient* local_clients_find(const std::string& address, uint64_t id) {
    const auto found = state.clients.find(address);
    return found == state.clients.end() || found->second.id != id ? nullptr : &found->second;
}

void local_clients_subscribe(LocalClient& client, unsigned gets) {
    const bool new_consumer = (gets & ~client.gets & kLocalSentences) != 0;
    client.gets |= gets;
    if (new_consumer) {
        want(+1);
    }
}

void local_clients_unsubscribe(LocalClient& client, unsigned gets) {
    const bool was_consumer = (gets & client.gets & kLocalSentences) != 0;
    client.gets &= ~gets;
    if (was_consumer) {
        want(-1);
    }
}

void local_clients_send(LocalClient& client, const tavor_response& response) {
    if (client.gone) {
        return;
    }
    const LocalSent result = client.waiting.empty() ? send_now(client, response) : LocalSent::kFull;
    client.gone = result == LocalSent::kGone;
    if (result == LocalSent::kFull) {
        keep(client, response);
    }
}

void local_clients_send_all(unsigned gets, const tavor_response& response) {
    for (auto& [address, client] : state.clients) {
        if ((client.gets & gets) != 0) {
            local_clients_send(client, response);
        }
    }
}

void local_clients_retry() {
    for (auto& [address, client] : state.clients) {
        if (!client.waiting.empty()) {
            send_waiting(client);
        }
    }
}

bool local_clients_audit_due() {
    state.much = state.much || local_unread_bytes(state.fd) > state.much_unread;
    return state.much || state.some_paused;
}

bool local_clients_audit() {
    state.much = local_unread_bytes(state.fd) > state.much_unread;
    const auto unread = state.much || state.some_paused ? local_unread_addresses() : std::nullopt;
    state.some_paused = false;
    for (auto& [address, client] : state.clients) {
        const bool counts = state.much || is_paused(client);
        const bool found = counts && unread && unread->count(address) > 0;
        client.unread = found ? client.unread : 0;
        state.some_paused = state.some_paused || is_paused(client);
    }
    return state.much || state.some_paused;
}

void local_clients_look() {
    for (auto& [address, client] : state.clients) {
        client.gone = client.gone || local_socket_is_gone(address);
    }
}

bool local_clients_tidy() {
    bool some_wait = false;
    for (auto one = state.clients.begin(); one != state.clients.end();) {
        if (is_over(one->second)) {
            local_clients_unsubscribe(one->second, ~0U);
            one = state.clients.erase(one);
        } else {
            some_wait = some_wait || !one->second.waiting.empty();
            ++one;
        }
    }
    return some_wait;
}

size_t local_clients_count() {
    return state.clients.size();
}

size_t local_clients_count_of(uid_t user) {
    return static_cast<size_t>(std::count_if(state.clients.begin(), state.clients.end(),
                                             [&](const auto& one) { return one.second.user == user; }));
}
