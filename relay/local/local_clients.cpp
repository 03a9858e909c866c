#include "local/local_clients.h"

#include "local/local_socket.h"
#include "local/local_unread.h"
#include "system/seldom.h"
#include "upstream/positioning.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sys/socket.h>
#include <unordered_map>

namespace {

constexpr size_t kSentencesMax = 64;
constexpr int kResultsMax = 16;
constexpr int kPatienceS = 30;
constexpr int kMuchShare = 4;  // much is unread: a quarter of the send buffer
constexpr int kUnreadMax = 64; // of one client while much is unread
constexpr int kCharge = 1280;  // bytes that the kernel charges for a datagram

struct ClientsState {
    int fd = -1;
    std::chrono::milliseconds second{1000};
    uint64_t last_id = 0;
    int buffer = 0; // bytes
    int unread = 0; // bytes, at most: as the kernel said last, and what was sent since
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

// Whether a quarter of the send buffer is unread. The kernel is asked only when it may be so.
bool much_unread() {
    if (state.unread > state.buffer / kMuchShare) {
        state.unread = local_unread_bytes(state.fd);
    }
    return state.unread > state.buffer / kMuchShare;
}

LocalSent send_charged(const std::string& address, const tavor_response& response) {
    const LocalSent result = local_socket_send(state.fd, address, response);
    state.unread += result == LocalSent::kDone ? kCharge : 0;
    return result;
}

// Of one client: its part of the room that is left now, so that those who come one after the other take less
// and less.
int share() {
    const int room = (state.buffer - state.unread) / kCharge;
    return std::clamp(room / static_cast<int>(state.clients.size()), 1, kUnreadMax);
}

LocalSent send_now(LocalClient& client, const tavor_response& response) {
    const bool much = much_unread();
    if (much && client.unread >= share()) {
        return LocalSent::kFull;
    }
    const LocalSent result = send_charged(client.address, response);
    client.unread += much && result == LocalSent::kDone ? 1 : 0;
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

// Whether nothing is to come for it, and it holds nothing that counts: who leaves without reading, to come
// again at another address, would hold more each time.
bool is_over(const LocalClient& client) {
    const bool awaits = client.gets != 0 || client.open_requests != 0 || !client.waiting.empty();
    return client.unread == 0 && (client.gone || !awaits);
}

void audit() {
    const bool counts = much_unread() && std::any_of(state.clients.begin(), state.clients.end(),
                                                     [](const auto& one) { return one.second.unread > 0; });
    const auto unread = counts ? local_unread_addresses() : std::nullopt;
    for (auto& [address, client] : state.clients) {
        client.unread = unread && unread->count(address) > 0 ? client.unread : 0;
    }
}

void leave(LocalClient& client) {
    local_clients_unsubscribe(client, ~0U);
    client.waiting.clear();
    client.waiting.shrink_to_fit();
    client.results = 0;
}

} // namespace

void local_clients_open(int fd, std::chrono::milliseconds second) {
    state = {};
    state.fd = fd;
    state.second = second;
    socklen_t size = sizeof state.buffer;
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &state.buffer, &size);
}

void local_clients_close() {
    state = {};
}

LocalClient& local_clients_of(const std::string& address, uid_t user) {
    LocalClient& client = state.clients[address];
    if (client.id == 0 || client.gone) { // what it has left unread still counts
        client.gone = false;
        client.open_requests = 0;
        client.address = address;
        client.user = user;
        client.id = ++state.last_id;
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

void local_clients_send_other(const std::string& address, const tavor_response& response) {
    if (!much_unread()) {
        send_charged(address, response);
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
    audit();
    for (auto& [address, client] : state.clients) {
        if (!client.waiting.empty()) {
            send_waiting(client);
        }
    }
}

void local_clients_look() {
    audit();
    for (auto& [address, client] : state.clients) {
        client.gone = client.gone || local_socket_is_gone(address);
    }
}

bool local_clients_tidy() {
    bool some_wait = false;
    for (auto one = state.clients.begin(); one != state.clients.end();) {
        if (one->second.gone) {
            leave(one->second);
        }
        some_wait = some_wait || !one->second.waiting.empty();
        one = is_over(one->second) ? state.clients.erase(one) : std::next(one);
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
