// What came from the daemon unasked, on its way to the outputs.
//
// Taking in is quick and handing out may be slow, so what is taken in waits here: 1,024 items at most, then
// the oldest sentence or position is dropped. Items are handed out for a millisecond at a time, one at least;
// then the daemon is heard. An answer to a request waits for its turn among them.
#ifndef TAVOR_RELAY_HUB_H
#define TAVOR_RELAY_HUB_H

#include "tavor/protocol.h"

#include <chrono>
#include <cstdint>
#include <event2/event.h>
#include <functional>
#include <optional>
#include <string_view>

enum class HubKind {
    kSentence,  // an NMEA sentence of the chip
    kPosition,  // a position block
    kChip,      // a $PZUL sentence of the chip
    kAssistance // the result of an assistance download
};

using HubTime = std::chrono::sys_time<std::chrono::nanoseconds>;

struct HubItem {
    HubKind kind;
    tavor_response datagram;        // as the daemon sent it
    std::optional<HubTime> arrived; // none when the daemon may have had to wait with it
};

// An output of the relay; it must not wait.
using HubOutput = std::function<void(const HubItem&)>;

// Is called after the last item that is there: what was gathered goes out.
using HubRest = std::function<void()>;

// Since the start. Each module counts its own.
struct HubCounters {
    uint64_t items = 0;           // taken in
    uint64_t sentences = 0;       // of these: sentences
    uint64_t positions = 0;       // of these: positions
    uint64_t dropped_in = 0;      // lost here, because handing out was too slow
    uint64_t dropped_local = 0;   // lost by local clients that did not read
    uint64_t dropped_tcp = 0;     // reports lost by TCP clients that did not read
    uint64_t dropped_mqtt = 0;    // positions that an MQTT broker never gets, because too many waited
    uint64_t published_mqtt = 0;  // positions that it has acknowledged
    uint64_t let_go = 0;          // clients that read or asked nothing for too long, or made way
    uint64_t requests = 0;        // of local clients that were heard
    uint64_t requests_failed = 0; // of these: answered with failure
    uint64_t refused = 0;         // requests without the right
    uint64_t ignored = 0;         // requests of clients with too many open ones, of a client too many
    uint64_t malformed = 0;       // datagrams and lines that mean nothing, or no longer
    uint64_t daemon_restarts = 0; // daemons found after the first one
    uint64_t local_consumers = 0; // at present
    uint64_t tcp_consumers = 0;   // at present
};

void hub_open(event_base* base);
void hub_close();

// Registers an output; it gets every item from now on.
void hub_take(HubOutput output);

// The same for one that hands on what it makes of an item: it gets each after all others, so that these
// have the item first.
void hub_take_last(HubOutput output);

// Registers what is to be called whenever all that was taken in has been handed out.
void hub_take_rest(HubRest rest);

// Takes in a datagram of the daemon that answers no request. hub_hand_out is to be called after the last one
// that is there.
void hub_put(const tavor_response& datagram, std::optional<HubTime> arrived = std::nullopt);

// Calls when all that has been taken in so far is handed out: at once when nothing waits. Never dropped, so
// the caller bounds how many there are.
void hub_after(std::function<void()> call);

// Hands out what was taken in: for one turn, the rest in further turns of the loop.
void hub_hand_out();

// Text of an item, up to its NUL.
std::string_view hub_text(const HubItem& item);

// Whether a datagram of this code may be dropped when its reader is slow.
bool hub_may_drop(uint32_t code);

HubCounters& hub_counters();

#endif
