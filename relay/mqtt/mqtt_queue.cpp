#include "mqtt/mqtt_queue.h"

#include <algorithm>
#include <utility>

void mqtt_queue_put(MqttQueue& queue, std::string payload) {
    queue.messages.push_back({std::move(payload), 0});
    if (queue.messages.size() > queue.max) {
        queue.messages.erase(queue.messages.begin() + static_cast<std::ptrdiff_t>(queue.in_flight));
        ++queue.dropped;
    }
}

const MqttMessage* mqtt_queue_next(const MqttQueue& queue) {
    const bool waits = queue.in_flight < queue.messages.size() && queue.in_flight < kMqttInFlightMax;
    return waits ? &queue.messages[queue.in_flight] : nullptr;
}

void mqtt_queue_sent(MqttQueue& queue, int number) {
    queue.messages[queue.in_flight++].number = number;
}

bool mqtt_queue_acknowledged(MqttQueue& queue, int number) {
    const auto end = queue.messages.begin() + static_cast<std::ptrdiff_t>(queue.in_flight);
    const auto found = std::find_if(queue.messages.begin(), end,
                                    [&](const MqttMessage& one) { return one.number == number; });
    if (found == end) {
        return false;
    }
    queue.messages.erase(found);
    --queue.in_flight;
    return true;
}

void mqtt_queue_lost(MqttQueue& queue) {
    queue.in_flight = 0;
}
