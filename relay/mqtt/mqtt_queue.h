// Positions on their way to the broker, in order, in memory.
//
// A message leaves when the broker has acknowledged it, so that a broker that is killed loses nothing; after
// a lost connection those on their way are sent again, which the broker may then see twice. Beyond the bound
// the oldest that is not on its way is dropped and counted.
#ifndef TAVOR_RELAY_MQTT_QUEUE_H
#define TAVOR_RELAY_MQTT_QUEUE_H

#include <cstdint>
#include <deque>
#include <string>

inline constexpr size_t kMqttInFlightMax = 20; // sent and not acknowledged

struct MqttMessage {
    std::string payload;
    int number = 0; // under which it is on its way
};

struct MqttQueue {
    size_t max = 0;
    std::deque<MqttMessage> messages;
    size_t in_flight = 0; // the first ones are on their way
    uint64_t dropped = 0;
};

void mqtt_queue_put(MqttQueue& queue, std::string payload);

// The next one to send; none while nothing waits or 20 are on their way.
const MqttMessage* mqtt_queue_next(const MqttQueue& queue);

// The next one is on its way under this number.
void mqtt_queue_sent(MqttQueue& queue, int number);

// False when none is on its way under the number.
bool mqtt_queue_acknowledged(MqttQueue& queue, int number);

// The connection is lost: what was on its way waits again.
void mqtt_queue_lost(MqttQueue& queue);

#endif
