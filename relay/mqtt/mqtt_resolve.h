// The addresses of a broker, asked of the name servers of the system without waiting: by libevent, whose
// queries end after ten seconds for each name that is tried.
#ifndef TAVOR_RELAY_MQTT_RESOLVE_H
#define TAVOR_RELAY_MQTT_RESOLVE_H

#include <event2/dns.h>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct EvdnsBaseFree {
    void operator()(evdns_base* base) const {
        evdns_base_free(base, 0);
    }
};

struct MqttResolver {
    std::vector<std::string> addresses; // what was found, as text
    std::string problem;                // why nothing was found
    std::function<void()> done;
    std::unique_ptr<evdns_base, EvdnsBaseFree> dns;
    evdns_getaddrinfo_request* request = nullptr; // that is not answered
};

// Whether the text is an address, which needs no name server.
bool mqtt_resolve_is_address(const std::string& host);

// Calls `done` once, maybe before it returns. The name servers are released with mqtt_resolve_end, which
// `done` must not call.
void mqtt_resolve(event_base* base, MqttResolver& resolver, const std::string& host);
void mqtt_resolve_end(MqttResolver& resolver);

#endif
