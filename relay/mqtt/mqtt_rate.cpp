#include "mqtt/mqtt_rate.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kEarthRadiusM = 6371008.8; // mean
constexpr double kRadian = M_PI / 180;      // of a degree

// Epochs come some milliseconds sooner or later than their time says: one that is a little early counts, else
// every tenth of a chip that gives one a second would often be the eleventh.
constexpr double kEarlyS = 0.1;

bool time_is_over(const MqttRate& rate, std::chrono::steady_clock::time_point now) {
    const double gone = std::chrono::duration<double>(now - *rate.published).count();
    return rate.every_s > 0 && gone >= rate.every_s - std::min(kEarlyS, rate.every_s / 2);
}

std::chrono::steady_clock::duration every(const MqttRate& rate) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(rate.every_s));
}

bool way_is_gone(const MqttRate& rate, const GnssEpoch& epoch) {
    return rate.distance_m > 0 && mqtt_rate_distance(rate.latitude, rate.longitude, *epoch.latitude,
                                                     *epoch.longitude) >= rate.distance_m;
}

} // namespace

double mqtt_rate_distance(double latitude1, double longitude1, double latitude2, double longitude2) {
    const double half_latitude = std::sin((latitude2 - latitude1) * kRadian / 2);
    const double half_longitude = std::sin((longitude2 - longitude1) * kRadian / 2);
    const double chord = half_latitude * half_latitude + std::cos(latitude1 * kRadian) *
                                                             std::cos(latitude2 * kRadian) * half_longitude *
                                                             half_longitude;
    return 2 * kEarthRadiusM * std::asin(std::min(1.0, std::sqrt(chord)));
}

bool mqtt_rate_due(MqttRate& rate, const GnssEpoch& epoch, std::chrono::steady_clock::time_point now) {
    const bool fix = epoch.mode >= GnssMode::k2d && epoch.latitude && epoch.longitude;
    const bool over = rate.published && time_is_over(rate, now);
    if (!fix || (rate.published && !over && !way_is_gone(rate, epoch))) {
        return false;
    }
    // The next one is counted from when this one was due: else each would be early, with many epochs a
    // second.
    rate.published = over ? std::max(now, *rate.published + every(rate)) : now;
    rate.latitude = *epoch.latitude;
    rate.longitude = *epoch.longitude;
    return true;
}
