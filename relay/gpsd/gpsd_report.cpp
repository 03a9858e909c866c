#include "gpsd/gpsd_report.h"

#include "gnss/gnss_sky.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr int kProtocolMajor = 3;
constexpr int kProtocolMinor = 14;
constexpr int kFlagsGps = 1; // of a device: it sends fixes
constexpr int kAngleDecimals = 9;
constexpr int kDecimals = 4;

std::string line(const Json& report) {
    return report.dump(-1, ' ', true, Json::error_handler_t::replace) + "\r\n";
}

void put(Json& report, const char* name, const std::optional<double>& value, int decimals = kDecimals) {
    if (value) {
        const double scale = std::pow(10.0, decimals);
        report[name] = std::round(*value * scale) / scale;
    }
}

void put_time(Json& report, const GnssEpoch& epoch) {
    if (epoch.time) {
        report["time"] = utc_iso(*epoch.time);
    }
}

bool has_fix(const GnssEpoch& epoch) {
    return epoch.mode == GnssMode::k2d || epoch.mode == GnssMode::k3d;
}

// The status that the quality of GGA means; none for an ordinary fix.
std::optional<int> status_of(const GnssEpoch& epoch) {
    switch (epoch.quality.value_or(0)) {
    case 2: // DGPS
        return 2;
    case 3: // precise: P(Y)
        return 9;
    case 4: // RTK, fixed
        return 3;
    case 5: // RTK, floating
        return 4;
    case 6: // dead reckoning
        return 5;
    case 7: // by hand: surveyed
        return 7;
    case 8: // simulated
        return 8;
    default:
        return std::nullopt;
    }
}

Json report_of(const char* name) {
    return {{"class", name}, {"device", kGpsdDevice}};
}

Json tpv(const GnssEpoch& epoch) {
    Json report = report_of("TPV");
    const bool fix = has_fix(epoch);
    if (const auto status = status_of(epoch); fix && status) {
        report["status"] = *status;
    }
    report["mode"] = static_cast<int>(epoch.mode);
    if (!fix) {
        return report;
    }
    put_time(report, epoch);
    put(report, "lat", epoch.latitude, kAngleDecimals);
    put(report, "lon", epoch.longitude, kAngleDecimals);
    if (epoch.altitude && epoch.separation) {
        put(report, "altHAE", *epoch.altitude + *epoch.separation);
    }
    put(report, "altMSL", epoch.altitude);
    put(report, "alt", epoch.altitude);
    put(report, "track", epoch.course);
    put(report, "speed", epoch.speed);
    put(report, "geoidSep", epoch.separation);
    return report;
}

Json satellite(const GnssSatellite& one) {
    Json report = {{"PRN", gnss_sky_prn(one)}};
    put(report, "el", one.elevation);
    put(report, "az", one.azimuth);
    report["ss"] = one.strength.value_or(0);
    report["used"] = one.used;
    report["gnssid"] = static_cast<int>(one.system);
    report["svid"] = one.number;
    return report;
}

Json sky(const GnssEpoch& epoch) {
    Json report = report_of("SKY");
    put_time(report, epoch);
    put(report, "vdop", epoch.vdop);
    put(report, "hdop", epoch.hdop);
    put(report, "pdop", epoch.pdop);
    report["nSat"] = epoch.satellites.size();
    report["uSat"] = std::count_if(epoch.satellites.begin(), epoch.satellites.end(),
                                   [](const GnssSatellite& one) { return one.used; });
    Json& all = report["satellites"] = Json::array();
    for (const GnssSatellite& one : epoch.satellites) {
        all.push_back(satellite(one));
    }
    return report;
}

Json gst(const GnssEpoch& epoch) {
    Json report = report_of("GST");
    put_time(report, epoch);
    put(report, "rms", epoch.errors->rms);
    put(report, "major", epoch.errors->major);
    put(report, "minor", epoch.errors->minor);
    put(report, "orient", epoch.errors->orientation);
    put(report, "lat", epoch.errors->latitude);
    put(report, "lon", epoch.errors->longitude);
    put(report, "alt", epoch.errors->altitude);
    return report;
}

Json device(std::optional<Utc> active) {
    Json report = {{"class", "DEVICE"}, {"path", kGpsdDevice}, {"driver", "NMEA0183"}};
    if (active) {
        report["activated"] = utc_iso(*active);
        report["flags"] = kFlagsGps;
    }
    report["native"] = 0;
    return report;
}

} // namespace

std::string gpsd_report_version() {
    return line({{"class", "VERSION"},
                 {"release", TAVOR_VERSION},
                 {"rev", "tavor-relay"},
                 {"proto_major", kProtocolMajor},
                 {"proto_minor", kProtocolMinor}});
}

std::string gpsd_report_devices(std::optional<Utc> active) {
    return line({{"class", "DEVICES"}, {"devices", Json::array({device(active)})}});
}

std::string gpsd_report_device(std::optional<Utc> active) {
    return line(device(active));
}

std::string gpsd_report_watch(const GpsdWatch& watch) {
    Json report = {{"class", "WATCH"},       {"enable", watch.enable},   {"json", watch.json},
                   {"nmea", watch.nmea},     {"raw", watch.raw},         {"scaled", watch.scaled},
                   {"timing", watch.timing}, {"split24", watch.split24}, {"pps", watch.pps}};
    if (watch.device) {
        report["device"] = kGpsdDevice;
    }
    return line(report);
}

std::string gpsd_report_tpv(const GnssEpoch& epoch) {
    return line(tpv(epoch));
}

std::string gpsd_report_sky(const GnssEpoch& epoch) {
    return line(sky(epoch));
}

std::string gpsd_report_gst(const GnssEpoch& epoch) {
    return epoch.errors ? line(gst(epoch)) : "";
}

std::string gpsd_report_poll(const GnssEpoch& epoch, bool active, Utc now) {
    const Json none = Json::array();
    return line({{"class", "POLL"},
                 {"time", utc_iso(now)},
                 {"active", active ? 1 : 0},
                 {"tpv", Json::array({tpv(epoch)})},
                 {"gst", epoch.errors ? Json::array({gst(epoch)}) : none},
                 {"sky", Json::array({sky(epoch)})}});
}

std::string gpsd_report_error(std::string_view message) {
    return line({{"class", "ERROR"}, {"message", message}});
}
