#include "server/option_rows.h"

#include "mqtt/mqtt_place.h"

#include <algorithm>
#include <charconv>
#include <type_traits>

namespace {

constexpr size_t kSocketPathMax = 107;
constexpr size_t kSuffixSize = sizeof TAVOR_RELAY_METRICS_SUFFIX - 1;
constexpr long kDayS = 86400;
constexpr long kDistanceMaxM = 1000000;
constexpr long kQueueMax = 100000;
constexpr long kKeepaliveMinS = 5, kKeepaliveMaxS = 65535;

std::string take_text(const std::string& value, std::string& place) {
    place = value;
    return "";
}

std::string take_path(const std::string& value, size_t longest, std::string& place) {
    if (value.empty() || value.size() > longest) {
        return "a socket's path has 1 to " + std::to_string(longest) + " characters";
    }
    return take_text(value, place);
}

template <typename Number>
std::string take_number(const std::string& value, long least, long most, Number& place) {
    Number number = 0;
    const char* const end = value.data() + value.size();
    const auto [stopped, error] = std::from_chars(value.data(), end, number);
    const bool within = number >= static_cast<Number>(least) && number <= static_cast<Number>(most);
    if (error != std::errc() || stopped != end || !within) { // "nan" is in no range
        return "'" + value + "' is no " + (std::is_integral_v<Number> ? "whole " : "") + "number from " +
               std::to_string(least) + " to " + std::to_string(most);
    }
    place = number;
    return "";
}

std::string take_positioning(Options& options, const std::string& value) {
    options.always = value == "always";
    return options.always || value == "demand" ? "" : "'" + value + "' is neither always nor demand";
}

// An empty text is no broker.
std::string take_broker(Options& options, const std::string& value) {
    MqttSettings& mqtt = options.mqtt;
    mqtt.host = "";
    mqtt.port = 0;
    const bool good = value.empty() || mqtt_place_parse(value, mqtt.host, mqtt.port);
    return good ? "" : "'" + value + "' is no HOST[:PORT]";
}

using Value = const std::string&;

constexpr OptionRow kRows[] = {
    {"daemon", "PATH", TAVOR_SOCKET_PATH, "The daemon's socket",
     [](Options& to, Value value) { return take_path(value, kSocketPathMax, to.daemon); }},
    // The path of the metrics is longer.
    {"socket", "PATH", TAVOR_RELAY_SOCKET_PATH, "The socket for local clients",
     [](Options& to, Value value) { return take_path(value, kSocketPathMax - kSuffixSize, to.socket); }},
    {"positioning", "POLICY:{always,demand}", "always",
     "always: on as long as the relay runs; demand: while somebody wants it", take_positioning},
    {"stop-delay", "SECONDS", "10", "On demand: how long positioning goes on after the last consumer",
     [](Options& to, Value value) { return take_number(value, 0, kDayS, to.stop_delay_s); }},
    {"listen", "[ADDRESS:]PORT", "127.0.0.1:2947", "Where gpsd's protocol is served; empty: nowhere",
     [](Options& to, Value value) { return take_text(value, to.listen); }},
    {"metrics", "PATH|[ADDRESS:]PORT", nullptr,
     "Where Prometheus finds the metrics, besides the local socket's path with \"" TAVOR_RELAY_METRICS_SUFFIX
     "\"",
     [](Options& to, Value value) { return take_text(value, to.metrics); }},
    {"chrony", "PATH", nullptr, "The socket at which chronyd takes the time; empty: none",
     [](Options& to, Value value) {
         return value.empty() ? take_text("", to.chrony) : take_path(value, kSocketPathMax, to.chrony);
     }},
    {"mqtt", "HOST[:PORT]", nullptr, "MQTT broker that gets positions and status (1883, with TLS 8883)",
     take_broker},
    {"mqtt-topic", "PREFIX", "tavor", "First levels of the topics",
     [](Options& to, Value value) { return take_text(value, to.mqtt.topic); }},
    {"mqtt-id", "ID", nullptr, "The device's name in topics and at the broker; default: the host's",
     [](Options& to, Value value) { return take_text(value, to.mqtt.id); }},
    {"mqtt-user", "NAME", nullptr, "User at the broker",
     [](Options& to, Value value) { return take_text(value, to.mqtt.user); }},
    {"mqtt-password-file", "FILE", nullptr, "File whose first line is the user's password",
     [](Options& to, Value value) { return take_text(value, to.mqtt.password_file); }},
    {"mqtt-ca", "FILE|DIR", nullptr, "TLS, with the authorities of this file or directory",
     [](Options& to, Value value) { return take_text(value, to.mqtt.ca); }},
    {"mqtt-cert", "FILE", nullptr, "With TLS: the device's own certificate",
     [](Options& to, Value value) { return take_text(value, to.mqtt.certificate); }},
    {"mqtt-key", "FILE", nullptr, "The key of that certificate",
     [](Options& to, Value value) { return take_text(value, to.mqtt.key); }},
    {"mqtt-every", "SECONDS", "10", "Publish after so many seconds; 0: the time is no reason",
     [](Options& to, Value value) { return take_number(value, 0, kDayS, to.mqtt.every_s); }},
    {"mqtt-distance", "METRES", "0", "Publish after so many metres; 0: the way is no reason",
     [](Options& to, Value value) { return take_number(value, 0, kDistanceMaxM, to.mqtt.distance_m); }},
    {"mqtt-queue", "COUNT", "1000", "Positions kept in memory while the broker is away",
     [](Options& to, Value value) { return take_number(value, 1, kQueueMax, to.mqtt.queue); }},
    {"mqtt-keepalive", "SECONDS", "60", "The broker is asked for a sign of life after this time",
     [](Options& to, Value value) {
         return take_number(value, kKeepaliveMinS, kKeepaliveMaxS, to.mqtt.keepalive_s);
     }},
};

} // namespace

std::span<const OptionRow> option_rows() {
    return kRows;
}

const OptionRow* option_row(std::string_view name) {
    const auto* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                         [&](const OptionRow& one) { return one.name == name; });
    return row == std::end(kRows) ? nullptr : row;
}

std::vector<std::string> option_names() {
    std::vector<std::string> names;
    for (const OptionRow& row : kRows) {
        names.emplace_back(row.name);
    }
    return names;
}
