// What the output to an MQTT broker is told at its start.
#ifndef TAVOR_RELAY_MQTT_SETTINGS_H
#define TAVOR_RELAY_MQTT_SETTINGS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

struct MqttSettings {
    std::string host;            // name or address; empty: no broker
    uint16_t port = 0;           // 0: the usual one
    std::string topic = "tavor"; // before "/ID/position" and "/ID/status"
    std::string id;              // of the device; the client identifier too
    std::string user;
    std::string password_file; // empty: no password; else its first line is the password
    std::string password;
    std::string ca; // file or directory; empty: without TLS
    std::string certificate;
    std::string key;
    double every_s = 10;   // 0: the time alone is no reason to publish
    double distance_m = 0; // 0: the distance alone is none
    size_t queue = 1000;   // messages that wait for the broker
    int keepalive_s = 60;
    std::chrono::milliseconds second{1000}; // length of a second of all limits; tests shorten it

    bool operator==(const MqttSettings&) const = default;
};

#endif
