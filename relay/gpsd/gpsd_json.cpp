#include "gpsd/gpsd_json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

void gpsd_json_put(std::string& object, std::string_view name, std::string_view json) {
    object += object.back() == '{' ? "\"" : ",\"";
    object += name;
    object += "\":";
    object += json;
}

void gpsd_json_text(std::string& object, std::string_view name, std::string_view text) {
    gpsd_json_put(object, name, "\"");
    object += text;
    object += '"';
}

void gpsd_json_flag(std::string& object, std::string_view name, bool flag) {
    gpsd_json_put(object, name, flag ? "true" : "false");
}

void gpsd_json_count(std::string& object, std::string_view name, int64_t count) {
    gpsd_json_put(object, name, std::to_string(count));
}

void gpsd_json_number(std::string& object, std::string_view name, const std::optional<double>& value,
                      double steps) {
    if (!value) {
        return;
    }
    std::array<char, 48> digits = {};
    const double rounded = std::round(*value * steps) / steps;
    const char* const end =
        std::to_chars(digits.begin(), digits.end(), rounded, std::chars_format::fixed).ptr;
    const bool whole = std::find(digits.cbegin(), end, '.') == end;
    gpsd_json_put(object, name, {digits.data(), static_cast<size_t>(end - digits.data())});
    object += whole ? ".0" : "";
}
