// Reports of gpsd's protocol, as gpsd_json(5) describes them: lines of JSON with CR LF. Attributes without a
// value are left out, and so are the error estimates that gpsd computes from the sky.
#ifndef TAVOR_RELAY_GPSD_REPORT_H
#define TAVOR_RELAY_GPSD_REPORT_H

#include "gnss/gnss_epoch.h"

#include <string>
#include <string_view>

// What a client has asked for.
struct GpsdWatch {
    bool enable = false;
    bool json = false;
    bool nmea = false;
    int raw = 0;
    bool scaled = false, timing = false, split24 = false, pps = false;
    bool device = false; // asked for by its name
};

inline constexpr char kGpsdDevice[] = "tavor";

std::string gpsd_report_version();
// The device is active since a moment, or not at all.
std::string gpsd_report_devices(std::optional<Utc> active);
std::string gpsd_report_device(std::optional<Utc> active);
std::string gpsd_report_watch(const GpsdWatch& watch);
std::string gpsd_report_tpv(const GnssEpoch& epoch);
std::string gpsd_report_sky(const GnssEpoch& epoch);
std::string gpsd_report_gst(const GnssEpoch& epoch); // empty when the epoch has none
std::string gpsd_report_poll(const GnssEpoch& epoch, bool active, Utc now);
std::string gpsd_report_error(std::string_view message);

#endif
