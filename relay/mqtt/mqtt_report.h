// The messages: one JSON object each, whose members are always there, null where nothing is known.
#ifndef TAVOR_RELAY_MQTT_REPORT_H
#define TAVOR_RELAY_MQTT_REPORT_H

#include "gnss/gnss_epoch.h"

#include <string>

struct MqttStatus {
    Utc time;                        // of the message
    bool daemon = false;             // is there
    bool positioning = false;        // is on
    std::optional<int64_t> fix_age;  // seconds
    uint64_t published = 0;          // positions that the broker has acknowledged
    uint64_t queued = 0;             // that it has not
    uint64_t dropped_positions = 0;  // that it never gets, because too many waited
    uint64_t dropped_sentences = 0;  // of the daemon, because the relay was too slow
    uint64_t dropped_by_clients = 0; // by local and TCP clients that did not read
};

// Time of the fix, degrees, metres above the sea, metres a second, degrees from true north.
std::string mqtt_report_position(const GnssEpoch& epoch);

std::string mqtt_report_status(const MqttStatus& status);

// What the broker publishes in the device's place when it is gone.
std::string mqtt_report_offline();

#endif
