#include "server/options_mqtt.h"

#include "mqtt/mqtt_place.h"
#include "server/file_head.h"

#include <array>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t kPasswordMax = 1024;

// The first line of a file, empty when there is none or it is too long.
std::string first_line(const std::string& path) {
    const std::string text = file_head(path, kPasswordMax + 1).value_or("");
    const std::string line = text.substr(0, text.find_first_of(std::string_view("\r\n\0", 3)));
    return line.size() <= kPasswordMax ? line : "";
}

std::string host_name() {
    std::array<char, 256> name = {};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string tls_problem(const MqttSettings& settings) {
    if (settings.certificate.empty() != settings.key.empty()) {
        return "--mqtt-cert and --mqtt-key need each other";
    }
    if (!settings.certificate.empty() && settings.ca.empty()) {
        return "--mqtt-cert needs --mqtt-ca";
    }
    return "";
}

std::string limits_problem(const MqttSettings& settings) {
    const bool never = settings.every_s <= 0 && settings.distance_m <= 0;
    return never ? "one of --mqtt-every and --mqtt-distance must not be 0" : "";
}

std::string password_problem(MqttSettings& settings) {
    const std::string& file = settings.password_file;
    if (file.empty()) {
        return "";
    }
    if (settings.user.empty()) {
        return "--mqtt-password-file needs --mqtt-user";
    }
    settings.password = first_line(file);
    return settings.password.empty() ? "no password can be read from " + file : "";
}

} // namespace

std::string options_mqtt_complete(MqttSettings& settings) {
    if (settings.host.empty()) {
        return "";
    }
    if (settings.port == 0) {
        settings.port = settings.ca.empty() ? kMqttPort : kMqttTlsPort;
    }
    if (settings.id.empty()) {
        settings.id = host_name();
    }
    if (!mqtt_place_is_id(settings.id)) {
        return "--mqtt-id has 1 to 64 characters, and no blank, '/', '+' or '#'";
    }
    if (!mqtt_place_is_topic(settings.topic)) {
        return "--mqtt-topic has 1 to 128 characters, no empty level, no blank, '+' or '#', and no '$' in front";
    }
    for (const std::string& problem :
         {tls_problem(settings), limits_problem(settings), password_problem(settings)}) {
        if (!problem.empty()) {
            return problem;
        }
    }
    return "";
}
