#include "server/options.h"

#include "server/exit_status.h"
#include "server/nearest.h"
#include "server/options_mqtt.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kFooter[] = R"(
Each option may stand in the configuration file, a line "option=value" without the dashes.

Exit status:
  0  ended by SIGTERM or SIGINT
  1  a socket can't be had: it is in use, or there is no right to it; or the files for TLS can't be read, or
     the program with MQTT is not installed
  2  the command line or the configuration file is wrong, or the password's file can't be read

Examples:
  tavor-relay
  tavor-relay --positioning demand --stop-delay 60
  tavor-relay --daemon /tmp/board/etc/default/tavor/tavor_sun_path --socket /tmp/relay.sock)";

constexpr double kStopDelayMaxS = 24 * 60 * 60;
constexpr size_t kSocketPathMax = 107;
constexpr size_t kSuffixSize = sizeof TAVOR_RELAY_METRICS_SUFFIX - 1;

void add_options(CLI::App& app, Options& options, std::string& positioning) {
    app.add_option("--daemon", options.daemon, "The daemon's socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--socket", options.socket, "The socket for local clients")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--positioning", positioning,
                   "always: on as long as the relay runs; demand: while somebody wants it")
        ->check(CLI::IsMember({"always", "demand"}))
        ->capture_default_str();
    app.add_option("--stop-delay", options.stop_delay_s,
                   "On demand: how long positioning goes on behind the last consumer")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, kStopDelayMaxS))
        ->capture_default_str();
    app.add_option("--listen", options.listen, "Where gpsd's protocol is served; empty: nowhere")
        ->type_name("[ADDRESS:]PORT")
        ->capture_default_str();
    app.add_option(
           "--metrics", options.metrics,
           "Where Prometheus finds the metrics, besides the local socket's path with \"" TAVOR_RELAY_METRICS_SUFFIX
           "\"")
        ->type_name("PATH|[ADDRESS:]PORT");
    app.add_option("--chrony", options.chrony, "The socket at which chronyd takes the time; empty: none")
        ->type_name("PATH");
}

int usage_error(std::string problem) {
    std::replace(problem.begin(), problem.end(), '\n', ' ');
    fprintf(stderr, "tavor-relay: %s; see 'tavor-relay --help'\n", problem.c_str());
    return kExitUsage;
}

// What is wrong with the file: it names an option that there is not. The parser ends its message with the
// name.
std::string unknown_setting(const CLI::App& app, std::string_view message) {
    constexpr std::string_view kBefore = "INI was not able to parse ";
    if (!message.starts_with(kBefore)) {
        return std::string(message);
    }
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_configurable() && !option->get_lnames().empty()) {
            names.push_back(option->get_lnames().front());
        }
    }
    const std::string name(message.substr(kBefore.size()));
    return "there is no setting '" + name + "' for the file, the nearest is '" + nearest_name(name, names) +
           "'";
}

} // namespace

std::optional<int> options_parse(int argc, const char* const* argv, Options& options,
                                 const char* config_path) {
    CLI::App app("Serves many clients with what the location daemon tavor sends to one.", "tavor-relay");
    std::string positioning = "always";
    app.set_version_flag("--version", "tavor-relay " TAVOR_VERSION);
    app.set_config("--config", config_path, "File with settings")->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error);
    // No value is a list: one may begin with the bracket of an IPv6 address, or hold blanks and commas.
    app.get_config_formatter_base()->arrayBounds('\n', '\n');
    app.footer(kFooter);
    add_options(app, options, positioning);
    MqttWords mqtt;
    options_mqtt_add(app, options.mqtt, mqtt);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ConfigError& error) {
        return usage_error(unknown_setting(app, error.what()));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app.exit(error);
        }
        return usage_error(error.what());
    }
    // A file that was read counts as given; the usual one is passed over when it can't be read.
    if (app.get_config_ptr()->count() == 0 && access(config_path, F_OK) == 0) {
        return usage_error(std::string("can't read ") + config_path);
    }
    if (!std::isfinite(options.stop_delay_s)) { // the check of the range lets "nan" pass
        return usage_error("--stop-delay is a number of seconds");
    }
    options.always = positioning == "always";
    const auto is_path = [](const std::string& path, size_t longest) {
        return !path.empty() && path.size() <= longest;
    };
    if (!is_path(options.daemon, kSocketPathMax)) {
        return usage_error("--daemon: a socket's path has 1 to 107 characters");
    }
    if (!is_path(options.socket, kSocketPathMax - kSuffixSize)) { // that of the metrics is longer
        return usage_error("--socket: the path has 1 to 99 characters");
    }
    if (!options.chrony.empty() && !is_path(options.chrony, kSocketPathMax)) {
        return usage_error("--chrony: a socket's path has 1 to 107 characters");
    }
    if (const std::string problem = options_mqtt_complete(options.mqtt, mqtt); !problem.empty()) {
        return usage_error(problem);
    }
    return std::nullopt;
}
