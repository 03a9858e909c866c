// Our reports beside gpsd's own reading of the same log: gpsdecode of Debian's gpsd-clients prints it as
// JSON.
#include "gnss/gnss_epoch.h"
#include "gpsd/gpsd_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using Json = nlohmann::json;
using Reports = std::map<std::string, Json>; // by time of day

constexpr const char* kTpvFields[] = {"mode",   "status", "lat",   "lon",   "altHAE",
                                      "altMSL", "alt",    "track", "speed", "geoidSep"};
constexpr const char* kGstFields[] = {"rms", "major", "minor", "orient", "lat", "lon", "alt"};

// gpsd takes other years for two digits.
std::string time_of_day(const Json& report) {
    const std::string time = report.value("time", "");
    return time.empty() ? "" : time.substr(time.find('T'));
}

void sort_in(const std::string& line, Reports& tpv, Reports& gst) {
    const Json report = Json::parse(line, nullptr, false);
    if (!report.is_object() || time_of_day(report).empty()) {
        return;
    }
    if (report.at("class") == "TPV" && report.at("mode") >= 2) { // without a fix there is nothing to compare
        tpv[time_of_day(report)] = report;
    } else if (report.at("class") == "GST") {
        gst[time_of_day(report)] = report;
    }
}

struct Readings {
    Reports tpv;
    Reports gst;
};

Readings gpsd_reading(const std::string& log) {
    Readings readings;
    FILE* const pipe = popen(("gpsdecode -j < '" + log + "' 2>/dev/null").c_str(), "r");
    std::string line;
    for (int c = pipe == nullptr ? EOF : fgetc(pipe); c != EOF; c = fgetc(pipe)) {
        line += static_cast<char>(c);
        if (c == '\n') {
            sort_in(std::exchange(line, ""), readings.tpv, readings.gst);
        }
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return readings;
}

Readings our_reading(const std::string& log) {
    Readings readings;
    GnssReader reader;
    std::ifstream file(log);
    for (std::string sentence; std::getline(file, sentence);) {
        gnss_reader_take(
            reader, sentence,
            [](void* to, const GnssEpoch& epoch) {
                auto* const all = static_cast<Readings*>(to);
                sort_in(gpsd_report_tpv(epoch), all->tpv, all->gst);
                sort_in(gpsd_report_gst(epoch), all->tpv, all->gst);
            },
            &readings);
    }
    return readings;
}

// Half of the last digit that gpsd prints of the field, and what its arithmetic adds.
double tolerance(const std::string& field, bool angle) {
    if (angle && (field == "lat" || field == "lon")) {
        return 1e-8;
    }
    return field == "speed" ? 6e-4 : 1e-3;
}

// gpsd has a model of the geoid for chips that don't tell its height.
bool is_of_model(const std::string& field) {
    return field == "altHAE" || field == "geoidSep";
}

// Where we mean to differ: time of day, field, and what gpsd does.
constexpr const char* kOurOwn[][2] = {
    {"T14:33:06.000Z", "speed"}, // begins behind a gap of the log: gpsd keeps the speed of before the gap
    {"T09:53:07.801Z", "mode"},  // GSA says 2D, and GGA tells an altitude: gpsd makes 3D of it
};

bool is_our_own(const std::string& time, const std::string& field) {
    return std::any_of(std::begin(kOurOwn), std::end(kOurOwn),
                       [&](const auto& one) { return time == one[0] && field == one[1]; });
}

bool agree(const Json& ours, const Json& theirs, const std::string& field, double tolerated) {
    if (!ours.contains(field) || !theirs.contains(field)) {
        return ours.contains(field) == theirs.contains(field) ||
               (is_of_model(field) && !ours.contains(field));
    }
    return std::fabs(ours.at(field).get<double>() - theirs.at(field).get<double>()) <= tolerated;
}

// Fields that differ, as text. An epoch may be missing at the end of the log, because nothing tells that it
// is over; of GST the first, because the end of an epoch was another until then.
template <size_t N>
std::string differences(const Reports& ours, const Reports& theirs, const char* const (&fields)[N],
                        bool angles, size_t& compared) {
    std::ostringstream text;
    for (auto one = theirs.begin(); one != theirs.end(); ++one) {
        const auto& [time, their] = *one;
        const auto our = ours.find(time);
        if (our == ours.end()) {
            const bool may_miss = std::next(one) == theirs.end() || (!angles && one == theirs.begin());
            text << (may_miss ? "" : time + " is missing\n");
            continue;
        }
        for (const char* field : fields) {
            ++compared;
            if (!agree(our->second, their, field, tolerance(field, angles)) && !is_our_own(time, field)) {
                text << time << " " << field << ": " << our->second.value(field, Json()) << " ours, "
                     << their.value(field, Json()) << " theirs\n";
            }
        }
    }
    return text.str();
}

struct RelayGpsdAgreement : testing::TestWithParam<std::string> {};

TEST_P(RelayGpsdAgreement, EveryFieldWithinRounding) {
    const std::string log = GetParam().front() == '/' ? GetParam() : TAVOR_NMEA_LOGS "/" + GetParam();
    if (!std::ifstream(log) || system("command -v gpsdecode >/dev/null") != 0) {
        GTEST_SKIP() << log << " or gpsdecode is missing";
    }
    const Readings ours = our_reading(log);
    const Readings theirs = gpsd_reading(log);
    size_t compared = 0;
    EXPECT_EQ(differences(ours.tpv, theirs.tpv, kTpvFields, true, compared), "");
    EXPECT_EQ(differences(ours.gst, theirs.gst, kGstFields, false, compared), "");
    EXPECT_GT(compared, 0U);
}

INSTANTIATE_TEST_SUITE_P(Logs, RelayGpsdAgreement,
                         testing::Values(TAVOR_REPLAY_DIR "/trajectory.nmea", "cold-start.nmea",
                                         "fast-moving.nmea", "five-talkers.nmea", "gst-west.nmea",
                                         "negative-altitude.nmea", "south-east-moving.nmea"),
                         [](const auto& one) {
                             std::string name = one.param.substr(one.param.rfind('/') + 1);
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name.substr(0, name.find('.'));
                         });

} // namespace
