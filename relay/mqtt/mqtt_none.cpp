// Stands in where the build has no MQTT library.
#include "mqtt/mqtt.h"

bool mqtt_available() {
    return false;
}

std::string mqtt_open(event_base* /*unused*/, const MqttSettings& /*unused*/) {
    return "this build has no MQTT";
}

void mqtt_close() {}
