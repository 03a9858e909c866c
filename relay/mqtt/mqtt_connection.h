// One connection to a broker, made again for as long as it is open.
//
// Nothing here waits: names are resolved by the loop, libmosquitto gets an address, and its socket is the
// loop's. An attempt ends after 20 seconds without an answer of the broker. The next one follows after a
// second, and after twice the time each further time, up to a minute, less up to half of it at random; the
// wait is short again after a connection that held for a minute.
#ifndef TAVOR_RELAY_MQTT_CONNECTION_H
#define TAVOR_RELAY_MQTT_CONNECTION_H

#include "mqtt/mqtt_resolve.h"
#include "mqtt/mqtt_settings.h"
#include "mqtt/mqtt_tls.h"
#include "system/event_guard.h"

#include <mosquitto.h>

struct MosquittoDestroy {
    void operator()(mosquitto* one) const {
        mosquitto_destroy(one);
    }
};

struct MqttWill {
    std::string topic;
    std::string payload; // retained
};

// What its owner is told; all but `acknowledged` may close nothing and open nothing.
struct MqttEvents {
    std::function<void()> connected;
    std::function<void(int number)> acknowledged;
    std::function<void()> lost; // what was not acknowledged is to be published again
    std::function<void()> second;
};

struct MqttConnection {
    event_base* base = nullptr;
    const MqttSettings* settings = nullptr;
    MqttWill will;
    MqttEvents events;
    MqttResolver resolver;
    MqttTls tls;
    std::unique_ptr<mosquitto, MosquittoDestroy> client; // of the attempt or connection
    EventPtr readable, writable;
    EventPtr step;   // the next thing to do: take the address, end, or try again
    EventPtr second; // looks at the limits
    bool resolving = false;
    bool accepted = false; // the broker has said so
    bool up = false;       // the owner has been told so
    size_t attempts = 0;
    std::chrono::steady_clock::time_point began;        // the attempt, or the connection
    std::chrono::steady_clock::time_point acknowledged; // the latest time, or the first message on its way
    size_t in_flight = 0;
    uint64_t expected = 0; // bytes from the broker, at most
    std::chrono::milliseconds wait{0};
    std::string refusal; // of the broker
    std::string failure; // of TLS, as OpenSSL puts it
    std::string told;    // the latest line of the log
};

// The settings stay where they are until the end.
void mqtt_connection_open(MqttConnection& connection, event_base* base, const MqttSettings& settings);

// Ends without a farewell, so that the broker publishes the will.
void mqtt_connection_close(MqttConnection& connection);

bool mqtt_connection_is_up(const MqttConnection& connection);

// Sends a retained message that the broker is to acknowledge. Returns its number, 0 when it could not be
// sent.
int mqtt_connection_publish(MqttConnection& connection, const std::string& topic, const std::string& payload);

#endif
