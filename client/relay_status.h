// What a relay in front of the daemon says of itself and of the daemon: it serves its metrics, in
// Prometheus's text format, at a stream socket beside its own.
#ifndef TAVOR_CLIENT_RELAY_STATUS_H
#define TAVOR_CLIENT_RELAY_STATUS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct RelayStatus {
    std::string socket; // its own
    std::string why;    // it says nothing; empty: it does
    std::string version;
    std::string daemon; // path of the daemon's socket
    bool daemon_up = false;
    bool positioning = false;
    std::optional<double> sentence_age_s;
    std::optional<double> fix_age_s;
    std::optional<int> quality; // as GGA gives it; none: no present epoch has one
    int satellites_used = 0;
    uint64_t local_consumers = 0;
    uint64_t gpsd_consumers = 0;
    uint64_t dropped = 0; // sentences, positions and reports, for whatever reason
    uint64_t let_go = 0;
    uint64_t daemon_restarts = 0;
};

inline constexpr std::chrono::milliseconds kRelayLimit{400};

// Asks the relay at this socket of requests; none when there is none, as where the daemon's own socket is.
std::optional<RelayStatus> relay_status_ask(const std::string& socket,
                                            std::chrono::milliseconds limit = kRelayLimit);

// Reads metrics: pure. None when they are not those of a relay, or end early. Every byte may be hostile.
std::optional<RelayStatus> relay_status_parse(std::string_view metrics);

#endif
