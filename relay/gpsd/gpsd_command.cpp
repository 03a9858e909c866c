#include "gpsd/gpsd_command.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace {

using Json = nlohmann::json;

constexpr int kRawMax = 2;

// Where the request ends, after its terminator; npos when it goes on. A string ends with its line.
size_t end_of(std::string_view input) {
    bool in_string = false;
    bool escaped = false;
    for (size_t i = 0; i < input.size(); ++i) {
        const char c = input[i];
        if (c == '\n' || c == '\r' || (c == ';' && !in_string)) {
            return i + 1;
        }
        if (c == '"' && !escaped) {
            in_string = !in_string;
        }
        escaped = in_string && c == '\\' && !escaped;
    }
    return std::string_view::npos;
}

bool is_flag(const Json& value) {
    return value.is_boolean() || value.is_number_integer();
}

bool flag_of(const Json& value) {
    return value.is_boolean() ? value.get<bool>() : value.get<int64_t>() != 0;
}

// Sets the flag from the object; false when its value is none.
bool take_flag(const Json& object, const char* name, bool& flag) {
    const auto found = object.find(name);
    if (found == object.end()) {
        return true;
    }
    if (!is_flag(*found)) {
        return false;
    }
    flag = flag_of(*found);
    return true;
}

bool take_raw(const Json& object, int& raw) {
    const auto found = object.find("raw");
    if (found == object.end()) {
        return true;
    }
    const bool good = found->is_boolean() || (found->is_number_integer() && found->get<int64_t>() >= 0 &&
                                              found->get<int64_t>() <= kRawMax);
    if (good) {
        raw = found->is_boolean() ? static_cast<int>(found->get<bool>()) : found->get<int>();
    }
    return good;
}

// Sets whether the device is asked for by its name. What is wrong with it, empty when nothing is; what ends a
// watch may name any.
std::string take_device(const Json& object, GpsdWatch& watch) {
    const auto found = object.find("device");
    if (found == object.end()) {
        return "";
    }
    if (!found->is_string()) {
        return "Invalid WATCH: a value is of the wrong kind";
    }
    const std::string name = found->get<std::string>();
    watch.device = name == kGpsdDevice;
    return watch.device || name.empty() || !watch.enable ? "" : "No such device as " + name;
}

} // namespace

std::optional<GpsdCommand> gpsd_command_next(std::string& input) {
    input.erase(0, std::min(input.find_first_not_of("; \t\r\n"), input.size()));
    const size_t end = end_of(input);
    if (end == std::string::npos) {
        return std::nullopt;
    }
    std::string text = input.substr(0, end - 1);
    input.erase(0, end);
    GpsdCommand command;
    if (text[0] != '?') {
        return command;
    }
    const size_t equals = text.find('=');
    if (equals != std::string::npos) {
        command.argument = text.substr(equals + 1);
        text.resize(equals);
    }
    command.name = text;
    return command;
}

std::string gpsd_command_watch(GpsdWatch& watch, const std::optional<std::string>& argument) {
    if (!argument) {
        return "";
    }
    const Json object = Json::parse(*argument, nullptr, false);
    if (!object.is_object()) {
        return "Invalid WATCH: no JSON object";
    }
    GpsdWatch asked = watch;
    asked.enable = true;
    const bool good = take_flag(object, "enable", asked.enable) && take_flag(object, "json", asked.json) &&
                      take_flag(object, "nmea", asked.nmea) && take_raw(object, asked.raw) &&
                      take_flag(object, "scaled", asked.scaled) &&
                      take_flag(object, "timing", asked.timing) &&
                      take_flag(object, "split24", asked.split24) && take_flag(object, "pps", asked.pps);
    if (!good) {
        return "Invalid WATCH: a value is of the wrong kind";
    }
    std::string problem = take_device(object, asked);
    if (problem.empty()) {
        watch = asked.enable ? asked : GpsdWatch{};
    }
    return problem;
}
