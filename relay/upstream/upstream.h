// The daemon's only client.
//
// All that waits in its socket is read before anything else is done in the loop, half a millisecond after the
// first datagram: so an epoch is read at once, as a rule. What answers a request goes to its asker, after
// what came before it, or as much of that as is handed out in a second; everything else goes through the hub.
// Nothing is read while there is no daemon. One that is gone, or another one at the path, is noticed within a
// second.
#ifndef TAVOR_RELAY_UPSTREAM_H
#define TAVOR_RELAY_UPSTREAM_H

#include "upstream/upstream_requests.h"

#include <event2/event.h>
#include <functional>
#include <string>
#include <string_view>

struct UpstreamSettings {
    std::string path;                       // of the daemon's socket
    std::chrono::milliseconds second{1000}; // length of a second of the limits; tests shorten it
};

// False with errno set when there can be no socket.
bool upstream_open(event_base* base, const UpstreamSettings& settings);
void upstream_close();

// Asks the daemon. The answer comes later, from the loop, and always comes.
void upstream_request(uint32_t type, std::string_view text, UpstreamAnswer answer);

// Calls back whenever a daemon was found (true) or is gone (false).
void upstream_watch(std::function<void(bool connected)> changed);

bool upstream_connected();

// When the latest datagram came; when the daemon was found at first.
RelayClock::time_point upstream_heard();

// The start banner of the daemon.
std::string_view upstream_banner();

#endif
