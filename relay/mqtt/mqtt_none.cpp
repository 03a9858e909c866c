// The relay without this output: its libraries would cost each relay a MiB, also one that publishes nowhere.
// A relay that is to publish is another program, which takes the place of this one.
#include "mqtt/mqtt.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char kAdvice[] = "; install the package tavor-relay-mqtt";

// The one place where the other program is looked for: beside this one, as both were installed.
fs::path other_program() {
    std::error_code error;
    const fs::path own = fs::read_symlink("/proc/self/exe", error);
    return (own.parent_path() / TAVOR_RELAY_MQTT_PROGRAM).lexically_normal();
}

} // namespace

std::string mqtt_enter(char** argv) {
    std::string program = other_program();
    // The other one is called by its path: one that is called so and comes here stands in its place, and
    // would call itself for ever.
    if (fs::path(argv[0]).filename() == fs::path(program).filename()) {
        return std::string(argv[0]) + " is no relay with MQTT" + kAdvice;
    }
    argv[0] = program.data();
    execv(program.c_str(), argv);
    return "MQTT takes " + program + ": " + strerror(errno) + kAdvice;
}

std::string mqtt_open(event_base* /*unused*/, const MqttSettings& /*unused*/) {
    return "this program has no MQTT";
}

void mqtt_close() {}
