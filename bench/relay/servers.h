// The servers that are compared: the relay, and as many gpsd as it takes for the consumers, each of which
// gets the relay's sentences on a pseudo-terminal.
#ifndef TAVOR_BENCH_RELAY_SERVERS_H
#define TAVOR_BENCH_RELAY_SERVERS_H

#include "support/harness.h"

#include <memory>
#include <string_view>

inline constexpr size_t kGpsdClientsMax = 64; // of Debian's gpsd

struct RelayServer {
    RelayServer(const std::string& daemon, const PrivateDir& directory);

    std::string socket;
    int port;
    std::unique_ptr<Child> process;
};

struct GpsdServer {
    explicit GpsdServer(const PrivateDir& directory);
    ~GpsdServer();
    GpsdServer(const GpsdServer&) = delete;
    GpsdServer& operator=(const GpsdServer&) = delete;

    int terminal = -1; // what is written here gpsd reads
    int port;
    std::unique_ptr<Child> process;
};

// Sends bytes to gpsd; what finds no room is lost and shows in what its consumers get.
void servers_feed(const std::vector<std::unique_ptr<GpsdServer>>& gpsds, std::string_view bytes);

#endif
