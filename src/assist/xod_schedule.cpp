#include "assist/xod_schedule.h"

#include <algorithm>
#include <limits>

namespace {

constexpr int32_t kFirstYear = 1980;
constexpr int64_t kDaysPerYear = 365;
constexpr int64_t kHoursPerDay = 24;
constexpr int64_t kDaysBeforeMonth[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
constexpr int32_t kFebruary = 2;
constexpr int64_t kFirstDay = 6; // of January 1980

constexpr uint32_t kStartHourMask = 0xFFFFFF;
constexpr uint32_t kFileHours = 72;
constexpr int32_t kNoHours = std::numeric_limits<int32_t>::max(); // larger than any real value

constexpr uint32_t kMsPerSecond = 1000;
constexpr uint32_t kMsPerMinute = 60000;
constexpr uint32_t kSecondsPerHour = 3600;
constexpr uint32_t kSoonMs = 3000;
constexpr uint32_t kRefreshHours = 47; // the delay counts from the moment when this many are left
// Shares of the low bits of valid hours and end, so that not every device asks at the same moment.
constexpr uint32_t kValidBits = 7;
constexpr uint32_t kEndBits = 15;
constexpr uint32_t kSpreadBits = 7;
constexpr uint32_t kSecondsPerValidBit = 420;
constexpr uint32_t kSecondsPerEndBit = 4;

constexpr uint32_t kFirstRetryMinutes = 5;
constexpr uint32_t kLongestRetryMinutes = 60;
constexpr uint32_t kDoublings = 3;

bool is_leap(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int64_t leap_years_to(int64_t year) {
    return year / 4 - year / 100 + year / 400;
}

int64_t leap_days(int32_t year) {
    return year < kFirstYear ? 0 : leap_years_to(year) - leap_years_to(kFirstYear - 1);
}

// Compares one type with the best so far. Returns whether to look further.
bool consider(uint32_t type, uint32_t count, xod_hours_reader read_hours, int32_t* best,
              XodSelection* selection) {
    uint32_t end = 0;
    const int32_t valid = read_hours(type, count, &end);
    if (valid < *best) {
        *best = valid;
        selection->type = type;
        selection->end = end;
    }
    return valid != 0;
}

} // namespace

int32_t gps_hour_from_utc(int32_t year, int32_t month, int32_t day, int32_t hour) {
    const bool before_leap_day = is_leap(year) && month <= kFebruary;
    const int64_t days = (int64_t{year} - kFirstYear) * kDaysPerYear + kDaysBeforeMonth[month - 1] + day +
                         leap_days(year) - kFirstDay - (before_leap_day ? 1 : 0);
    return static_cast<int32_t>(days * kHoursPerDay + hour);
}

uint32_t xod_start_hour(uint32_t first_word) {
    return first_word & kStartHourMask;
}

int32_t xod_valid_hours(uint32_t start, int32_t now, uint32_t* end_out) {
    const uint32_t end = start + kFileHours;
    const auto valid = static_cast<int32_t>(end - static_cast<uint32_t>(now));
    *end_out = valid < 1 ? 0 : end;
    return std::max(valid, 0);
}

void xod_select_type(uint32_t mask, uint32_t count, xod_hours_reader read_hours, XodSelection* selection) {
    int32_t best = kNoHours;
    const bool with_glonass = (mask & XOD_MASK_GPS_GLONASS) != 0;
    if ((mask & (XOD_MASK_GPS | XOD_MASK_GPS_GLONASS)) != 0 &&
        !consider(with_glonass ? XOD_GPS_GLONASS : XOD_GPS, count, read_hours, &best, selection)) {
        return;
    }
    if ((mask & XOD_MASK_BEIDOU) != 0 && !consider(XOD_BEIDOU, count, read_hours, &best, selection)) {
        return;
    }
    if ((mask & XOD_MASK_GALILEO) != 0 && !consider(XOD_GALILEO, count, read_hours, &best, selection)) {
        return;
    }
    if (best != kNoHours) {
        selection->valid = static_cast<uint32_t>(best);
    }
}

uint32_t xod_clamped_hours(uint32_t valid) {
    return std::min(valid, kFileHours);
}

uint32_t xod_next_download_ms(uint32_t valid, uint32_t end, uint32_t retries) {
    if (valid == 0 || end == 0) {
        return kSoonMs;
    }
    const uint32_t r = valid & kValidBits;
    const uint32_t x = (valid - kRefreshHours) * kSecondsPerHour + r * kSecondsPerValidBit +
                       (end & kEndBits) * kSecondsPerEndBit;
    if (x == 0) {
        return xod_retry_ms(retries);
    }
    return (x + ((x & kSpreadBits) + r) * kSecondsPerHour) * kMsPerSecond;
}

uint32_t xod_retry_ms(uint32_t retries) {
    const uint32_t minutes = retries <= kDoublings ? kFirstRetryMinutes << retries : kLongestRetryMinutes;
    return minutes * kMsPerMinute;
}
