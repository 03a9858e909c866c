#include "mqtt/mqtt_place.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr size_t kHostMax = 253; // of a name in DNS

bool is_port(std::string_view text, uint16_t& port) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && rest == end && port > 0;
}

bool is_printable(char letter) {
    return letter > ' ' && letter <= '~';
}

bool is_level(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char letter) {
        return is_printable(letter) && letter != '/' && letter != '+' && letter != '#';
    });
}

// Takes the host off the place; what follows it stays.
std::string_view take_host(std::string_view& place) {
    if (place.starts_with('[')) {
        const size_t end = std::min(place.find(']'), place.size());
        const std::string_view host = place.substr(1, end - 1);
        place = end == place.size() ? "]" : place.substr(end + 1);
        return host;
    }
    const size_t colon = place.find(':');
    const bool one = colon != std::string_view::npos && place.rfind(':') == colon;
    const std::string_view host = one ? place.substr(0, colon) : place;
    place.remove_prefix(host.size());
    return host;
}

} // namespace

bool mqtt_place_parse(std::string_view place, std::string& host, uint16_t& port) {
    host = take_host(place);
    const bool good = !host.empty() && host.size() <= kHostMax &&
                      std::all_of(host.begin(), host.end(), is_printable) &&
                      host.find_first_of("[]/") == std::string::npos;
    return good && (place.empty() || (place.front() == ':' && is_port(place.substr(1), port)));
}

bool mqtt_place_is_id(std::string_view text) {
    return text.size() <= kMqttIdMax && is_level(text);
}

bool mqtt_place_is_topic(std::string_view text) {
    if (text.size() > kMqttTopicMax || text.starts_with('$')) {
        return false;
    }
    for (size_t slash = 0; (slash = text.find('/')) != std::string_view::npos;) {
        if (!is_level(text.substr(0, slash))) {
            return false;
        }
        text.remove_prefix(slash + 1);
    }
    return is_level(text);
}
