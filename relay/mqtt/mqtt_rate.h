// Which fixes are published: the first, and each that comes a set number of seconds or metres after the one
// that was published last, whichever is sooner.
#ifndef TAVOR_RELAY_MQTT_RATE_H
#define TAVOR_RELAY_MQTT_RATE_H

#include "gnss/gnss_epoch.h"

struct MqttRate {
    double every_s = 0;                                             // 0: the time alone is no reason
    double distance_m = 0;                                          // 0: the distance alone is none
    std::optional<std::chrono::steady_clock::time_point> published; // or was due, a little later
    double latitude = 0, longitude = 0;                             // where
};

// Whether the epoch has a fix that is to be published; the next ones are counted from it then.
bool mqtt_rate_due(MqttRate& rate, const GnssEpoch& epoch, std::chrono::steady_clock::time_point now);

// Metres between two places, on a sphere: half a percent off at most.
double mqtt_rate_distance(double latitude1, double longitude1, double latitude2, double longitude2);

#endif
