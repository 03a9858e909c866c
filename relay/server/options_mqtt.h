// The options of the output to an MQTT broker.
#ifndef TAVOR_RELAY_OPTIONS_MQTT_H
#define TAVOR_RELAY_OPTIONS_MQTT_H

#include "mqtt/mqtt_settings.h"

#include <CLI/CLI.hpp>

// As they stand on the command line or in the file.
struct MqttWords {
    std::string place;
    std::string password_file;
};

// Keeps references to both until the line is parsed.
void options_mqtt_add(CLI::App& app, MqttSettings& settings, MqttWords& words);

// Completes the settings behind the parsing. Returns what is wrong, nothing when all is well.
std::string options_mqtt_complete(MqttSettings& settings, const MqttWords& words);

#endif
