// The command line and the configuration file.
#ifndef TAVOR_RELAY_OPTIONS_H
#define TAVOR_RELAY_OPTIONS_H

#include "mqtt/mqtt_settings.h"
#include "tavor/protocol.h"

#include <optional>
#include <string>

inline constexpr char kConfigPath[] = "/etc/tavor/relay.conf";

struct Options {
    std::string daemon = TAVOR_SOCKET_PATH;
    std::string socket = TAVOR_RELAY_SOCKET_PATH;
    bool always = true; // positioning; else on demand
    double stop_delay_s = 10;
    std::string listen = "127.0.0.1:2947"; // gpsd's protocol; empty: not at all
    MqttSettings mqtt;
    std::string metrics; // a further place for the metrics: a path, or as listen
    std::string chrony;  // chronyd's socket; empty: none

    bool operator==(const Options&) const = default;
};

// Reads the command line and the file; what stands on the command line wins, and of a setting given twice the
// later. Prints help and version on standard output, what is wrong in one line on standard error. Returns the
// exit status when the process should end now.
std::optional<int> options_parse(int argc, char* const* argv, Options& options,
                                 const char* config_path = kConfigPath);

#endif
