// The output to an MQTT broker: positions and the device's state, as docs/relay.md describes them. Nothing
// that comes from the broker reaches the chip: nothing is subscribed to.
#ifndef TAVOR_RELAY_MQTT_H
#define TAVOR_RELAY_MQTT_H

#include "mqtt/mqtt_settings.h"

#include <event2/event.h>

// Call once the options are read, before anything is opened: puts the program that has this output in place
// of one that has not, with the same arguments, environment and process. Returns in the one that has it, with
// nothing, or with what is wrong. The name in argv[0] is changed.
std::string mqtt_enter(char** argv);

// Call after gnss_open. Connects, and connects again, for as long as the relay runs. Returns what is wrong
// with the files for TLS, nothing when they are good.
std::string mqtt_open(event_base* base, const MqttSettings& settings);

// The broker tells the others that the device is offline.
void mqtt_close();

#endif
