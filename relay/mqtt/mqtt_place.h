// Words of the settings: where the broker is, and what may stand in a topic.
#ifndef TAVOR_RELAY_MQTT_PLACE_H
#define TAVOR_RELAY_MQTT_PLACE_H

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr uint16_t kMqttPort = 1883;
inline constexpr uint16_t kMqttTlsPort = 8883;
inline constexpr size_t kMqttIdMax = 64;
inline constexpr size_t kMqttTopicMax = 128;

// Reads HOST[:PORT]; an address of IPv6 with a port stands in brackets. Without a port `port` keeps its
// value. False when it is no place.
bool mqtt_place_parse(std::string_view place, std::string& host, uint16_t& port);

// Whether the text may be a level of a topic and a client identifier: 1 to 64 printable characters of ASCII
// without blanks, '/', '+' and '#'.
bool mqtt_place_is_id(std::string_view text);

// Whether the text may stand before the level of the device: 1 to 128 characters, levels as above with '/'
// between them, none of them empty, and no '$' in front, which is the broker's own.
bool mqtt_place_is_topic(std::string_view text);

#endif
