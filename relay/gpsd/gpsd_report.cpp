#include "gpsd/gpsd_report.h"

#include "gnss/gnss_sky.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

// Members in their order, each put once: the library's [] would look through those before it for the name.
using Members = Json::object_t;

constexpr int kProtocolMajor = 3;
constexpr int kProtocolMinor = 14;
constexpr int kFlagsGps = 1;        // of a device: it sends fixes
constexpr double kAngleScale = 1e9; // nine decimals
constexpr double kScale = 1e4;
constexpr size_t kMembersMax = 16; // of a report: it grows without being copied

std::string line(const Json& report) {
    return report.dump(-1, ' ', true, Json::error_handler_t::replace) + "\r\n";
}

void put(Members& report, const char* name, const std::optional<double>& value, double scale = kScale) {
    if (value) {
        report.emplace_back(name, std::round(*value * scale) / scale);
    }
}

void put_time(Members& report, const GnssEpoch& epoch) {
    if (epoch.time) {
        report.emplace_back("time", utc_iso(*epoch.time));
    }
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

Members members() {
    Members made;
    made.reserve(kMembersMax);
    return made;
}

Members report_of(const char* name) {
    Members report = members();
    report.emplace_back("class", name);
    report.emplace_back("device", kGpsdDevice);
    return report;
}

Json tpv(const GnssEpoch& epoch) {
    Members report = report_of("TPV");
    const bool fix = epoch.mode >= GnssMode::k2d;
    if (const auto status = status_of(epoch); fix && status) {
        report.emplace_back("status", *status);
    }
    report.emplace_back("mode", static_cast<int>(epoch.mode));
    if (!fix) {
        return report;
    }
    put_time(report, epoch);
    put(report, "lat", epoch.latitude, kAngleScale);
    put(report, "lon", epoch.longitude, kAngleScale);
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
    Members report = members();
    report.emplace_back("PRN", gnss_sky_prn(one));
    put(report, "el", one.elevation);
    put(report, "az", one.azimuth);
    report.emplace_back("ss", one.strength.value_or(0));
    report.emplace_back("used", one.used);
    report.emplace_back("gnssid", static_cast<int>(one.system));
    report.emplace_back("svid", one.number);
    return report;
}

Json satellites(const GnssEpoch& epoch) {
    Json::array_t all;
    all.reserve(epoch.satellites.size());
    for (const GnssSatellite& one : epoch.satellites) {
        all.push_back(satellite(one));
    }
    return all;
}

Json sky(const GnssEpoch& epoch) {
    Members report = report_of("SKY");
    put_time(report, epoch);
    put(report, "vdop", epoch.vdop);
    put(report, "hdop", epoch.hdop);
    put(report, "pdop", epoch.pdop);
    report.emplace_back("nSat", epoch.satellites.size());
    report.emplace_back("uSat", std::count_if(epoch.satellites.begin(), epoch.satellites.end(),
                                              [](const GnssSatellite& one) { return one.used; }));
    report.emplace_back("satellites", satellites(epoch));
    return report;
}

Json gst(const GnssEpoch& epoch) {
    Members report = report_of("GST");
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
