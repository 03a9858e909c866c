#include "mqtt/mqtt_report.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr int kAngleDecimals = 9; // a tenth of a millimetre
constexpr int kDecimals = 4;

Json rounded(const std::optional<double>& value, int decimals = kDecimals) {
    if (!value) {
        return nullptr;
    }
    const double scale = std::pow(10.0, decimals);
    return std::round(*value * scale) / scale;
}

// Satellites of the view that the fix uses.
Json used_of(const GnssEpoch& epoch) {
    if (epoch.satellites.empty()) {
        return nullptr;
    }
    return std::count_if(epoch.satellites.begin(), epoch.satellites.end(),
                         [](const GnssSatellite& one) { return one.used; });
}

} // namespace

std::string mqtt_report_position(const GnssEpoch& epoch) {
    const Json report = {{"time", epoch.time ? Json(utc_iso(*epoch.time)) : Json()},
                         {"latitude", rounded(epoch.latitude, kAngleDecimals)},
                         {"longitude", rounded(epoch.longitude, kAngleDecimals)},
                         {"altitude", rounded(epoch.altitude)},
                         {"speed", rounded(epoch.speed)},
                         {"course", rounded(epoch.course)},
                         {"mode", static_cast<int>(epoch.mode)},
                         {"quality", epoch.quality ? Json(*epoch.quality) : Json()},
                         {"satellites", used_of(epoch)},
                         {"pdop", rounded(epoch.pdop)},
                         {"hdop", rounded(epoch.hdop)},
                         {"vdop", rounded(epoch.vdop)}};
    return report.dump();
}

std::string mqtt_report_status(const MqttStatus& status) {
    const Json report = {{"state", "online"},
                         {"time", utc_iso(status.time)},
                         {"version", TAVOR_VERSION},
                         {"daemon", status.daemon},
                         {"positioning", status.positioning},
                         {"fix_age", status.fix_age ? Json(*status.fix_age) : Json()},
                         {"published", status.published},
                         {"queued", status.queued},
                         {"dropped_positions", status.dropped_positions},
                         {"dropped_sentences", status.dropped_sentences},
                         {"dropped_by_clients", status.dropped_by_clients}};
    return report.dump();
}

std::string mqtt_report_offline() {
    return Json({{"state", "offline"}}).dump();
}
