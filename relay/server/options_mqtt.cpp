#include "server/options_mqtt.h"

#include "mqtt/mqtt_place.h"

#include <array>
#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr double kEveryMaxS = 24 * 60 * 60;
constexpr double kDistanceMaxM = 1e6;
constexpr size_t kQueueMax = 100000;
constexpr int kKeepaliveMinS = 5, kKeepaliveMaxS = 65535;
constexpr size_t kPasswordMax = 1024;

void add_place(CLI::App& app, MqttSettings& settings, MqttWords& words) {
    app.add_option("--mqtt", words.place, "MQTT broker that gets positions and status (1883, with TLS 8883)")
        ->type_name("HOST[:PORT]");
    app.add_option("--mqtt-topic", settings.topic, "First levels of the topics")
        ->type_name("PREFIX")
        ->capture_default_str();
    app.add_option("--mqtt-id", settings.id,
                   "The device's name in topics and at the broker; default: the host's")
        ->type_name("ID");
    app.add_option("--mqtt-user", settings.user, "User at the broker")->type_name("NAME");
    app.add_option("--mqtt-password-file", words.password_file,
                   "File whose first line is the user's password")
        ->type_name("FILE");
    app.add_option("--mqtt-ca", settings.ca, "TLS, with the authorities of this file or directory")
        ->type_name("FILE|DIR");
    app.add_option("--mqtt-cert", settings.certificate, "With TLS: the device's own certificate")
        ->type_name("FILE");
    app.add_option("--mqtt-key", settings.key, "The key of that certificate")->type_name("FILE");
}

void add_limits(CLI::App& app, MqttSettings& settings) {
    app.add_option("--mqtt-every", settings.every_s,
                   "Publish after so many seconds; 0: the time is no reason")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, kEveryMaxS))
        ->capture_default_str();
    app.add_option("--mqtt-distance", settings.distance_m,
                   "Publish after so many metres; 0: the way is no reason")
        ->type_name("METRES")
        ->check(CLI::Range(0.0, kDistanceMaxM))
        ->capture_default_str();
    app.add_option("--mqtt-queue", settings.queue, "Positions kept in memory while the broker is away")
        ->type_name("COUNT")
        ->check(CLI::Range(size_t{1}, kQueueMax))
        ->capture_default_str();
    app.add_option("--mqtt-keepalive", settings.keepalive_s,
                   "The broker is asked for a sign of life after this time")
        ->type_name("SECONDS")
        ->check(CLI::Range(kKeepaliveMinS, kKeepaliveMaxS))
        ->capture_default_str();
}

// The first line of a file. False when it is no regular file that can be read, or has no such line.
bool read_line(const std::string& path, std::string& line) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status = {};
    std::array<char, kPasswordMax + 1> text = {};
    const bool regular = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    const ssize_t size = regular ? read(fd, text.data(), text.size()) : -1;
    if (fd >= 0) {
        close(fd);
    }
    line = std::string(text.data(), size > 0 ? static_cast<size_t>(size) : 0);
    line = line.substr(0, line.find_first_of(std::string_view("\r\n\0", 3)));
    return !line.empty() && line.size() <= kPasswordMax;
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
    // The checks of the ranges let "nan" pass.
    if (!std::isfinite(settings.every_s) || !std::isfinite(settings.distance_m)) {
        return "--mqtt-every and --mqtt-distance are numbers";
    }
    const bool never = settings.every_s <= 0 && settings.distance_m <= 0;
    return never ? "one of --mqtt-every and --mqtt-distance must not be 0" : "";
}

std::string password_problem(MqttSettings& settings, const std::string& file) {
    if (file.empty()) {
        return "";
    }
    if (settings.user.empty()) {
        return "--mqtt-password-file needs --mqtt-user";
    }
    return read_line(file, settings.password) ? "" : "no password can be read from " + file;
}

} // namespace

void options_mqtt_add(CLI::App& app, MqttSettings& settings, MqttWords& words) {
    add_place(app, settings, words);
    add_limits(app, settings);
}

std::string options_mqtt_complete(MqttSettings& settings, const MqttWords& words) {
    if (words.place.empty()) {
        return "";
    }
    settings.port = settings.ca.empty() ? kMqttPort : kMqttTlsPort;
    if (!mqtt_place_parse(words.place, settings.host, settings.port)) {
        return "--mqtt: '" + words.place + "' is no HOST[:PORT]";
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
         {tls_problem(settings), limits_problem(settings), password_problem(settings, words.password_file)}) {
        if (!problem.empty()) {
            return problem;
        }
    }
    return "";
}
