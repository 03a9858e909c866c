#include "service/location_aiding.h"

#include "assist/xod_host_aiding.h"
#include "link/location_command.h"
#include "queue/service_state.h"
#include "service/location_file.h"

#include <cstdio>
#include <ctime>

namespace {

constexpr size_t kCommandSize = 352; // bytes of a command body; more is not sent
constexpr int kTmYearBase = 1900;

// Fields of a request for orbit data.
constexpr size_t kConstellationField = 2;
constexpr size_t kWeekField = 3;
constexpr size_t kTowField = 4; // seconds of the week

enum AidingKind : int32_t {
    kAidingOrbit = 0,
    kAidingTime = 1,
    kAidingPosition = 2,
};

// Bits of the packed time.
constexpr uint32_t kYearMask = 0xFFFF;
constexpr uint32_t kByteMask = 0xFF;
constexpr uint32_t kMonthShift = 16;
constexpr uint32_t kDayShift = 24;
constexpr uint32_t kHourShift = 32;
constexpr uint32_t kMinuteShift = 40;
constexpr uint32_t kSecondShift = 48;

uint64_t packed(int number, uint32_t mask, uint32_t shift) {
    return static_cast<uint64_t>(static_cast<uint32_t>(number) & mask) << shift;
}

int unpacked(uint64_t utc, uint32_t shift) {
    return static_cast<int>(utc >> shift & kByteMask);
}

// Kept: sent also when the clock can't be read, with all numbers zero.
void answer_time() {
    const uint64_t t = location_service_get_utc();
    char command[kCommandSize];
    snprintf(command, sizeof command, "590,%04d,%02d,%02d,%02d,%02d,%02d", static_cast<int>(t & kYearMask),
             unpacked(t, kMonthShift), unpacked(t, kDayShift), unpacked(t, kHourShift),
             unpacked(t, kMinuteShift), unpacked(t, kSecondShift));
    location_command_send(command);
}

void answer_position() {
    AidingPosition p;
    if (location_service_get_position(&p) == 0) {
        char command[kCommandSize];
        snprintf(command, sizeof command, "600,%.6f,%.6f,%.1f,%.1f,%.1f,%.1f,%.1f", p.latitude, p.longitude,
                 p.height, p.majorAxis, p.minorAxis, p.orientation, p.verticalUncertainty);
        location_command_send(command);
    }
    printf("[LOCSERV] INF: aiding reference position: %.6f,%.6f,%.1f,%.1f,%.1f,%.1f,%.1f\n", p.latitude,
           p.longitude, p.height, p.majorAxis, p.minorAxis, p.orientation, p.verticalUncertainty);
}

// Also before a client has started the assistance download: the files may be there from an earlier run.
void answer_orbit(const NmeaFields& fields) {
    xod_host_aiding(static_cast<int8_t>(location_nmea_number(fields.field[kConstellationField])),
                    static_cast<uint32_t>(location_nmea_number(fields.field[kWeekField])),
                    location_nmea_number(fields.field[kTowField]));
}

} // namespace

uint64_t location_service_get_utc() {
    const time_t now = time(nullptr);
    if (now < 0) {
        puts("[LOCSERV] ERR: location_service_get_utc time error");
        return 0;
    }
    tm utc = {};
    if (gmtime_r(&now, &utc) == nullptr) {
        puts("[LOCSERV] ERR: location_service_get_utc gmtime error");
        return 0;
    }
    return packed(utc.tm_year + kTmYearBase, kYearMask, 0) | packed(utc.tm_mon + 1, kByteMask, kMonthShift) |
           packed(utc.tm_mday, kByteMask, kDayShift) | packed(utc.tm_hour, kByteMask, kHourShift) |
           packed(utc.tm_min, kByteMask, kMinuteShift) | packed(utc.tm_sec, kByteMask, kSecondShift);
}

void location_aiding_answer(const NmeaFields* fields) {
    switch (location_nmea_number(fields->field[1])) {
    case kAidingOrbit:
        answer_orbit(*fields);
        break;
    case kAidingTime:
        if (g_service_state.xod_enabled == 1) {
            answer_time();
        }
        break;
    case kAidingPosition:
        answer_position();
        break;
    default:
        break;
    }
}
