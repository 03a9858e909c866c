// The local clients: who they are, what they get, and what waits for them.
//
// For a client that does not read (its socket is full, or it has left its share unread while much is unread
// in all) 64 sentences, also of the chip, and positions wait, then the oldest is dropped. Results are never
// dropped: when a 17th would wait the client is disconnected, as is one that has taken nothing for 30 seconds
// while something waits. One that is disconnected or has left keeps its place until it is found with all of
// its share read.
//
// What silent clients hold together stays below the send buffer: while a quarter of it is unread, a client is
// sent one more than the n that it has left unread only while there is room for n + 1 more of every client
// (64 at most). The one exception: one that has read everything gets one, as long as there is any room.
#ifndef TAVOR_RELAY_LOCAL_CLIENTS_H
#define TAVOR_RELAY_LOCAL_CLIENTS_H

#include "hub/hub.h"
#include "upstream/upstream_requests.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// What a client gets unasked.
inline constexpr unsigned kLocalSentences = 1; // sentences and positions: it requested start
inline constexpr unsigned kLocalChip = 2;      // what the chip answers: it requested start, or sent a command
inline constexpr unsigned kLocalAssistance = 4; // it asked for an assistance download

struct LocalClient {
    std::string address;
    uint64_t id = 0; // never given to another
    uid_t user = 0;  // who has taken the place
    unsigned gets = 0;
    int open_requests = 0;               // without a result
    int results = 0;                     // of what waits
    bool gone = false;                   // has left or was disconnected: gets nothing unless it asks again
    int unread = 0;                      // sent while much is unread, since it was found with all read
    RelayClock::time_point taken;        // the latest datagram that it took or that waited first
    std::vector<tavor_response> waiting; // the oldest first
};

void local_clients_open(int fd, std::chrono::milliseconds second);
void local_clients_close();

// The client with this address; made for the user when there is none.
LocalClient& local_clients_of(const std::string& address, uid_t user);

bool local_clients_is_known(const std::string& address);

// The client with this id, null when it has left.
LocalClient* local_clients_find(const std::string& address, uint64_t id);

// Sets or takes back what a client gets; positioning is told when it becomes or is no longer a consumer.
void local_clients_subscribe(LocalClient& client, unsigned gets);
void local_clients_unsubscribe(LocalClient& client, unsigned gets);

// Sends a datagram to someone who is no client; not while much is unread, as what it leaves unread is not
// counted.
void local_clients_send_other(const std::string& address, const tavor_response& response);

// Sends a datagram to one client, or to all that get it. Those that are gone are noticed here.
void local_clients_send(LocalClient& client, const tavor_response& response);
void local_clients_send_all(unsigned gets, const tavor_response& response);

// Finds out who has read everything, and sends what waits.
void local_clients_retry();

// Finds out who has read everything, and notices those that are gone without a datagram.
void local_clients_look();

// Forgets those that are gone, and those that get nothing, have nothing to come and have left none of their
// share unread. References to clients end here. Returns whether something waits for one of the others.
bool local_clients_tidy();

size_t local_clients_count();
size_t local_clients_count_of(uid_t user);

#endif
