#include "gpsd/gpsd_report.h"

#include "gnss/gnss_sky.h"
#include "gpsd/gpsd_json.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace {

constexpr int kProtocolMajor = 3;
constexpr int kProtocolMinor = 14;
constexpr int kFlagsGps = 1; // of a device: it sends fixes
constexpr double kAngleSteps = 1e9;
constexpr double kSteps = 1e4;
constexpr size_t kReportSize = 512; // that a report has room for at once; most are shorter

void put(std::string& report, const char* name, const std::optional<double>& value, double steps = kSteps) {
    gpsd_json_number(report, name, value, steps);
}

void put_time(std::string& report, const GnssEpoch& epoch) {
    if (epoch.time) {
        gpsd_json_text(report, "time", utc_iso(*epoch.time));
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
    case 4: // RTK, fixed
        return 3;
    case 5: // RTK, floating
        return 4;
    case 6: // dead reckoning
        return 5;
    case 8: // simulated
        return 8;
    default:
        return std::nullopt;
    }
}

std::string report_of(const char* name) {
    std::string report;
    report.reserve(kReportSize);
    report = "{";
    gpsd_json_text(report, "class", name);
    return report;
}

std::string report_of_device(const char* name) {
    std::string report = report_of(name);
    gpsd_json_text(report, "device", kGpsdDevice);
    return report;
}

std::string tpv(const GnssEpoch& epoch) {
    std::string report = report_of_device("TPV");
    const bool fix = has_fix(epoch);
    if (const auto status = status_of(epoch); fix && status) {
        gpsd_json_count(report, "status", *status);
    }
    gpsd_json_count(report, "mode", static_cast<int>(epoch.mode));
    if (!fix) {
        return report + "}";
    }
    put_time(report, epoch);
    put(report, "lat", epoch.latitude, kAngleSteps);
    put(report, "lon", epoch.longitude, kAngleSteps);
    if (epoch.altitude && epoch.separation) {
        put(report, "altHAE", *epoch.altitude + *epoch.separation);
    }
    put(report, "altMSL", epoch.altitude);
    put(report, "alt", epoch.altitude);
    put(report, "track", epoch.course);
    put(report, "speed", epoch.speed);
    put(report, "geoidSep", epoch.separation);
    return report + "}";
}

void put_satellite(std::string& all, const GnssSatellite& one) {
    all += all.back() == '[' ? "{" : ",{";
    gpsd_json_count(all, "PRN", gnss_sky_prn(one));
    put(all, "el", one.elevation);
    put(all, "az", one.azimuth);
    put(all, "ss", one.strength.value_or(0));
    gpsd_json_flag(all, "used", one.used);
    gpsd_json_count(all, "gnssid", static_cast<int>(one.system));
    gpsd_json_count(all, "svid", one.number);
    all += '}';
}

// The text of the satellites, kept until they change: they do once a second as a rule, the DOPs before them
// come with each epoch, and the satellites are nine tenths of the report.
const std::string& satellites(const GnssEpoch& epoch) {
    static std::vector<GnssSatellite> told;
    static std::string text = "[]";
    if (epoch.satellites != told) {
        told = epoch.satellites;
        text = "[";
        for (const GnssSatellite& one : told) {
            put_satellite(text, one);
        }
        text += ']';
    }
    return text;
}

std::string sky(const GnssEpoch& epoch) {
    const std::string& all = satellites(epoch);
    std::string report = report_of_device("SKY");
    report.reserve(kReportSize + all.size());
    put_time(report, epoch);
    put(report, "vdop", epoch.vdop);
    put(report, "hdop", epoch.hdop);
    put(report, "pdop", epoch.pdop);
    gpsd_json_count(report, "nSat", std::ssize(epoch.satellites));
    gpsd_json_count(report, "uSat",
                    std::count_if(epoch.satellites.begin(), epoch.satellites.end(),
                                  [](const GnssSatellite& one) { return one.used; }));
    gpsd_json_put(report, "satellites", all);
    return report + "}";
}

std::string gst(const GnssEpoch& epoch) {
    std::string report = report_of_device("GST");
    put_time(report, epoch);
    put(report, "rms", epoch.errors->rms);
    put(report, "major", epoch.errors->major);
    put(report, "minor", epoch.errors->minor);
    put(report, "orient", epoch.errors->orientation);
    put(report, "lat", epoch.errors->latitude);
    put(report, "lon", epoch.errors->longitude);
    put(report, "alt", epoch.errors->altitude);
    return report + "}";
}

std::string device(std::optional<Utc> active) {
    std::string report = report_of("DEVICE");
    gpsd_json_text(report, "path", kGpsdDevice);
    gpsd_json_text(report, "driver", "NMEA0183");
    if (active) {
        gpsd_json_text(report, "activated", utc_iso(*active));
        gpsd_json_count(report, "flags", kFlagsGps);
    }
    gpsd_json_count(report, "native", 0);
    return report + "}";
}

// A text that anybody may have sent, quoted: what is no UTF-8 is replaced.
std::string quoted(std::string_view text) {
    return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

} // namespace

std::string gpsd_report_version() {
    std::string report = report_of("VERSION");
    gpsd_json_text(report, "release", TAVOR_VERSION);
    gpsd_json_text(report, "rev", "tavor-relay");
    gpsd_json_count(report, "proto_major", kProtocolMajor);
    gpsd_json_count(report, "proto_minor", kProtocolMinor);
    return report + "}\r\n";
}

std::string gpsd_report_devices(std::optional<Utc> active) {
    std::string report = report_of("DEVICES");
    gpsd_json_put(report, "devices", "[" + device(active) + "]");
    return report + "}\r\n";
}

std::string gpsd_report_device(std::optional<Utc> active) {
    return device(active) + "\r\n";
}

std::string gpsd_report_watch(const GpsdWatch& watch) {
    std::string report = report_of("WATCH");
    gpsd_json_flag(report, "enable", watch.enable);
    gpsd_json_flag(report, "json", watch.json);
    gpsd_json_flag(report, "nmea", watch.nmea);
    gpsd_json_count(report, "raw", watch.raw);
    gpsd_json_flag(report, "scaled", watch.scaled);
    gpsd_json_flag(report, "timing", watch.timing);
    gpsd_json_flag(report, "split24", watch.split24);
    gpsd_json_flag(report, "pps", watch.pps);
    if (watch.device) {
        gpsd_json_text(report, "device", kGpsdDevice);
    }
    return report + "}\r\n";
}

std::string gpsd_report_tpv(const GnssEpoch& epoch) {
    return tpv(epoch) + "\r\n";
}

std::string gpsd_report_sky(const GnssEpoch& epoch) {
    return sky(epoch) + "\r\n";
}

std::string gpsd_report_gst(const GnssEpoch& epoch) {
    return epoch.errors ? gst(epoch) + "\r\n" : "";
}

std::string gpsd_report_poll(const GnssEpoch& epoch, bool active, Utc now) {
    std::string report = report_of("POLL");
    gpsd_json_text(report, "time", utc_iso(now));
    gpsd_json_count(report, "active", active ? 1 : 0);
    gpsd_json_put(report, "tpv", "[" + tpv(epoch) + "]");
    gpsd_json_put(report, "gst", epoch.errors ? "[" + gst(epoch) + "]" : "[]");
    gpsd_json_put(report, "sky", "[" + sky(epoch) + "]");
    return report + "}\r\n";
}

std::string gpsd_report_error(std::string_view message) {
    std::string report = report_of("ERROR");
    gpsd_json_put(report, "message", quoted(message));
    return report + "}\r\n";
}
