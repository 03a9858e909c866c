// The settings of the output to an MQTT broker, seen together.
#ifndef TAVOR_RELAY_OPTIONS_MQTT_H
#define TAVOR_RELAY_OPTIONS_MQTT_H

#include "mqtt/mqtt_settings.h"

#include <string>

// Completes what was read: port, name of the device, password. Returns what is wrong, nothing when all is
// well or there is no broker.
std::string options_mqtt_complete(MqttSettings& settings);

#endif
