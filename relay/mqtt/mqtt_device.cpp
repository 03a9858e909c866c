#include "mqtt/mqtt_device.h"

#include "hub/hub.h"
#include "upstream/positioning.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStatusS = 60;

MqttStatus status_of(const MqttDevice& device) {
    const HubCounters& counters = hub_counters();
    MqttStatus status;
    status.time = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    status.daemon = upstream_connected();
    status.positioning = positioning_is_on();
    if (device.fixed) {
        status.fix_age = std::chrono::floor<std::chrono::seconds>(BootClock::now() - *device.fixed).count();
    }
    status.published = device.published;
    status.queued = device.queue.messages.size();
    status.dropped_positions = device.queue.dropped;
    status.dropped_sentences = counters.dropped_in;
    status.dropped_by_clients = counters.dropped_local + counters.dropped_tcp;
    return status;
}

// One at a time: a broker that acknowledges nothing gets no further ones.
void publish_status(MqttDevice& device) {
    if (device.status_number == 0) {
        device.status = status_of(device);
        device.status_sent = Clock::now();
        device.status_number = mqtt_connection_publish(device.connection, device.status_topic,
                                                       mqtt_report_status(device.status));
    }
}

void publish_positions(MqttDevice& device) {
    while (const MqttMessage* const next = mqtt_queue_next(device.queue)) {
        const int number = mqtt_connection_publish(device.connection, device.position_topic, next->payload);
        if (number == 0) {
            return;
        }
        mqtt_queue_sent(device.queue, number);
    }
}

void acknowledged(MqttDevice& device, int number) {
    if (number == device.status_number) {
        device.status_number = 0;
    } else if (mqtt_queue_acknowledged(device.queue, number)) {
        ++device.published;
        ++hub_counters().published_mqtt;
    }
    publish_positions(device);
}

void each_second(MqttDevice& device) {
    const bool changed = upstream_connected() != device.status.daemon ||
                         positioning_is_on() != device.status.positioning ||
                         device.queue.dropped != device.status.dropped_positions;
    if (changed || Clock::now() - device.status_sent >= kStatusS * device.settings.second) {
        publish_status(device);
    }
}

MqttEvents events_of(MqttDevice& device) {
    return {.connected =
                [&device] {
                    publish_status(device);
                    publish_positions(device);
                },
            .acknowledged = [&device](int number) { acknowledged(device, number); },
            .lost =
                [&device] {
                    mqtt_queue_lost(device.queue);
                    device.status_number = 0;
                },
            .second = [&device] { each_second(device); }};
}

} // namespace

void mqtt_device_open(MqttDevice& device, event_base* base, const MqttSettings& settings) {
    device.settings = settings;
    device.queue.max = settings.queue;
    device.rate.every_s = settings.every_s;
    device.rate.distance_m = settings.distance_m;
    const std::string topic = settings.topic + "/" + settings.id;
    device.position_topic = topic + "/position";
    device.status_topic = topic + "/status";
    device.connection.will = {device.status_topic, mqtt_report_offline()};
    device.connection.events = events_of(device);
    mqtt_connection_open(device.connection, base, device.settings);
}

void mqtt_device_close(MqttDevice& device) {
    mqtt_connection_close(device.connection);
}

void mqtt_device_take(MqttDevice& device, const GnssEpoch& epoch) {
    if (epoch.mode >= GnssMode::k2d) {
        device.fixed = BootClock::now();
    }
    if (mqtt_rate_due(device.rate, epoch, Clock::now())) {
        const uint64_t before = device.queue.dropped;
        mqtt_queue_put(device.queue, mqtt_report_position(epoch));
        hub_counters().dropped_mqtt += device.queue.dropped - before;
        publish_positions(device);
    }
}
