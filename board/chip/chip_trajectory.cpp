#include "chip/chip_trajectory.h"

#include "chip/chip_sentence.h"
#include "chip/chip_sky.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <numbers>

namespace {

constexpr double kRadiansPerDegree = std::numbers::pi / 180;
constexpr double kMetresPerDegree = 111320.0; // of latitude
constexpr double kKnotsPerMps = 1.943844;
constexpr double kAltitudeSwingM = 2.0;
constexpr double kAltitudePeriodS = 90.0;
constexpr uint64_t kUsPerSecond = 1000000;
constexpr uint64_t kUsPerCentisecond = 10000;
constexpr int64_t kMinuteFractions = 100000; // five decimals
constexpr size_t kMaxBody = 128;

[[gnu::format(printf, 1, 2)]] std::string body_of(const char* format, ...) {
    std::array<char, kMaxBody> text{};
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): clang 14 does not see va_start
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return text.data();
}

double wrap(double value, double low, double high) {
    const double span = high - low;
    return value - span * std::floor((value - low) / span);
}

// Metres north and east of the start.
void displacement(const ChipOptions& options, double seconds, double& north, double& east) {
    const double course = options.course_deg * kRadiansPerDegree;
    const double turn = options.turn_deg_per_s * kRadiansPerDegree;
    if (std::abs(turn) < 1e-9) {
        north = options.speed_mps * seconds * std::cos(course);
        east = options.speed_mps * seconds * std::sin(course);
        return;
    }
    const double radius = options.speed_mps / turn;
    north = radius * (std::sin(course + turn * seconds) - std::sin(course));
    east = radius * (std::cos(course) - std::cos(course + turn * seconds));
}

struct UtcText {
    std::string time; // hhmmss.ss
    std::string date; // ddmmyy
};

UtcText utc_text(uint64_t utc_us) {
    using namespace std::chrono;
    const sys_seconds moment{seconds(utc_us / kUsPerSecond)};
    const sys_days day = floor<days>(moment);
    const year_month_day date(day);
    const hh_mm_ss time(moment - day);
    return {body_of("%02d%02d%02d.%02d", static_cast<int>(time.hours().count()),
                    static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
                    static_cast<int>(utc_us % kUsPerSecond / kUsPerCentisecond)),
            body_of("%02u%02u%02d", static_cast<unsigned>(date.day()), static_cast<unsigned>(date.month()),
                    static_cast<int>(date.year()) % 100)};
}

// Degrees and minutes followed by the hemisphere, rounded once so that 60 minutes never show.
std::string angle_text(double degrees, int width, const char* hemispheres) {
    const auto fractions = static_cast<int64_t>(std::llround(std::abs(degrees) * 60 * kMinuteFractions));
    const int64_t minutes = fractions / kMinuteFractions;
    return body_of("%0*d%02d.%05d,%c", width, static_cast<int>(minutes / 60), static_cast<int>(minutes % 60),
                   static_cast<int>(fractions % kMinuteFractions), hemispheres[degrees < 0 ? 1 : 0]);
}

std::string rmc(const ChipOptions& options, const UtcText& utc, const ChipPosition& position, bool fix) {
    if (!fix) {
        return chip_sentence("GNRMC," + utc.time + ",V,,,,,,," + utc.date + ",,,N,V");
    }
    return chip_sentence(
        "GNRMC," + utc.time + ",A," + angle_text(position.latitude, 2, "NS") + "," +
        angle_text(position.longitude, 3, "EW") +
        body_of(",%.3f,%.2f,", options.speed_mps * kKnotsPerMps, std::min(position.course_deg, 359.99)) +
        utc.date + ",,,A,V");
}

std::string gga(const ChipOptions& options, const UtcText& utc, const ChipPosition& position, bool fix) {
    if (!fix) {
        return chip_sentence("GNGGA," + utc.time + ",,,,,0,00,99.99,,M,,M,,");
    }
    return chip_sentence(
        "GNGGA," + utc.time + "," + angle_text(position.latitude, 2, "NS") + "," +
        angle_text(position.longitude, 3, "EW") +
        body_of(",1,%02u,0.72,%.1f,M,%.1f,M,,", chip_sky_used(), position.altitude_m, options.geoid_m));
}

} // namespace

ChipPosition chip_trajectory_position(const ChipOptions& options, double seconds) {
    double north = 0;
    double east = 0;
    displacement(options, seconds, north, east);
    const double narrowing = std::max(std::cos(options.latitude * kRadiansPerDegree), 0.01);
    double latitude = wrap(options.latitude + north / kMetresPerDegree, -180, 180);
    double longitude = options.longitude + east / (kMetresPerDegree * narrowing);
    if (std::abs(latitude) > 90) { // over the pole
        latitude = std::copysign(180.0, latitude) - latitude;
        longitude += 180;
    }
    return {latitude, wrap(longitude, -180, 180),
            options.altitude_m +
                kAltitudeSwingM * std::sin(2 * std::numbers::pi * seconds / kAltitudePeriodS),
            wrap(options.course_deg + options.turn_deg_per_s * seconds, 0, 360)};
}

void chip_trajectory_epoch(const ChipOptions& options, const ChipEpoch& epoch,
                           std::vector<std::string>& sentences) {
    const UtcText utc = utc_text(epoch.utc_us);
    const ChipPosition position = chip_trajectory_position(options, epoch.seconds);
    sentences.push_back(rmc(options, utc, position, epoch.fix));
    sentences.push_back(gga(options, utc, position, epoch.fix));
    chip_sky_gsa(epoch.fix, sentences);
    if (epoch.with_sky) {
        chip_sky_gsv(epoch.fix, epoch.utc_us / kUsPerSecond, options.seed, sentences);
    }
    if (epoch.fix) {
        const double spread = 0.2 * std::sin(epoch.seconds / 7);
        sentences.push_back(chip_sentence(body_of("GNGST,%s,%.1f,%.1f,%.1f,%.1f,%.1f,%.1f,%.1f",
                                                  utc.time.c_str(), 2.1, 1.9 + spread, 1.2 + spread,
                                                  wrap(epoch.seconds, 0, 180), 1.4, 1.6, 2.8 + spread)));
        sentences.push_back(chip_sentence(body_of("GNEPE,%.2f,%.2f", 1.85 + spread, 2.80 + spread)));
    }
}
