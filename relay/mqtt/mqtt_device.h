// What one device publishes: positions, each at least once and in order, and its state.
//
// Topics are PREFIX/ID/position and PREFIX/ID/status, retained, QoS 1. The state is published with each
// connection, when the daemon or positioning comes or goes, when positions have been dropped, at most once a
// second, and each minute. In the device's place the broker publishes "offline".
#ifndef TAVOR_RELAY_MQTT_DEVICE_H
#define TAVOR_RELAY_MQTT_DEVICE_H

#include "mqtt/mqtt_connection.h"
#include "mqtt/mqtt_queue.h"
#include "mqtt/mqtt_rate.h"
#include "mqtt/mqtt_report.h"
#include "system/boot_clock.h"

struct MqttDevice {
    MqttSettings settings;
    std::string position_topic, status_topic;
    MqttConnection connection;
    MqttQueue queue;
    MqttRate rate;
    uint64_t published = 0;
    std::optional<BootClock::time_point> fixed; // the latest fix
    int status_number = 0;                      // of a status on its way
    MqttStatus status;                          // the latest that was sent
    std::chrono::steady_clock::time_point status_sent;
};

// The device stays where it is until its end.
void mqtt_device_open(MqttDevice& device, event_base* base, const MqttSettings& settings);
void mqtt_device_close(MqttDevice& device);

void mqtt_device_take(MqttDevice& device, const GnssEpoch& epoch);

#endif
