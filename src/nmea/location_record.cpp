#include "nmea/location_record.h"

#include "base/format.h"
#include "nmea/location_nmea_fields.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

static_assert(sizeof(LocationRecord) == 94);
static_assert(offsetof(LocationRecord, height) == 42 && offsetof(LocationRecord, verticalUncertainty) == 82);

namespace {

constexpr int32_t kFieldsMin = 2; // below: no sentence to track
constexpr int32_t kGgaFieldsMin = 10;
constexpr int32_t kErrorFieldsMin = 3; // of GST and EPE
constexpr size_t kNumberTextSize = 15; // a number is read from at most 14 characters
constexpr ptrdiff_t kMinuteDigits = 2; // whole minutes before the decimal point
constexpr double kMinutesPerDegree = 60.0;
constexpr size_t kHeightRoom = sizeof(LocationRecord) - offsetof(LocationRecord, height);

// Numbers of the fields in their sentences.
constexpr size_t kGgaUtc = 1;
constexpr size_t kGgaLatitude = 2;
constexpr size_t kGgaLongitude = 4;
constexpr size_t kGgaAltitude = 9;
constexpr size_t kGgaSeparation = 11;
constexpr size_t kGstMajorAxis = 3;
constexpr size_t kGstMinorAxis = 4;
constexpr size_t kGstOrientation = 5;
constexpr size_t kEpeVertical = 2;

// What tells latitude and longitude apart.
struct CoordinateKind {
    size_t field;  // the hemisphere is the next one
    char positive; // the hemisphere without a sign
    const char* minutes_failure;
    const char* degrees_failure;
};

constexpr CoordinateKind kLatitude = {
    kGgaLatitude, 'N', "[LOCSERV] ERR: location_service_get_location_string sscanf latitude min fail",
    "[LOCSERV] ERR: location_service_get_location_string sscanf latitude deg fail"};
constexpr CoordinateKind kLongitude = {
    kGgaLongitude, 'E', "[LOCSERV] ERR: location_service_get_location_string sscanf longitude min fail",
    "[LOCSERV] ERR: location_service_get_location_string sscanf longitude deg fail"};

struct NumberText {
    char text[kNumberTextSize];
};

// A coordinate ddmm.mmmm in its two parts.
struct CoordinateTexts {
    NumberText degrees;
    NumberText minutes;
};

NumberText number_text(const char* begin, size_t length) {
    NumberText number = {};
    memcpy(number.text, begin, std::min(length, kNumberTextSize - 1));
    return number;
}

// Reads the number; where there is none the failure is printed and the number is 0.
double read_number(const NumberText& number, const char* failure) {
    double value = 0.0;
    if (sscanf(number.text, "%lf", &value) != 1) {
        puts(failure);
    }
    return value;
}

bool cut_coordinate(const char* field, CoordinateTexts* out) {
    const char* point = strchr(field, '.');
    if (point == nullptr || point - field < kMinuteDigits) {
        return false;
    }
    const char* minutes = point - kMinuteDigits;
    out->degrees = number_text(field, static_cast<size_t>(minutes - field));
    out->minutes = number_text(minutes, strlen(minutes));
    return true;
}

// Writes sign and decimal degrees; an empty hemisphere counts as the negative one. Returns false when there
// is no coordinate.
template <size_t N>
bool update_coordinate(char (&dst)[N], const CoordinateKind& kind, const NmeaFields& fields) {
    CoordinateTexts texts;
    if (!cut_coordinate(fields.field[kind.field], &texts)) {
        return false;
    }
    const double minutes = read_number(texts.minutes, kind.minutes_failure);
    const double degrees = read_number(texts.degrees, kind.degrees_failure);
    const char* sign = fields.field[kind.field + 1][0] == kind.positive ? "" : "-";
    snprintf(dst, N, "%s%lf", sign, degrees + minutes / kMinutesPerDegree);
    return true;
}

// Altitude plus geoid separation. Kept: six decimals, so a text of ten or more characters runs on into
// majorAxis, which clients of the 94-byte block know; it ends inside the record.
void update_height(LocationRecord* record, const NmeaFields& fields) {
    const double separation =
        read_number(number_text(fields.field[kGgaSeparation], kNmeaFieldSize),
                    "[LOCSERV] ERR: location_service_get_location_string sscanf height min fail");
    const double altitude =
        read_number(number_text(fields.field[kGgaAltitude], kNmeaFieldSize),
                    "[LOCSERV] ERR: location_service_get_location_string sscanf height deg fail");
    char* height = reinterpret_cast<char*>(record) + offsetof(LocationRecord, height);
    if (format(height, kHeightRoom, "%lf", altitude + separation) < 0) {
        puts("[LOCSERV] ERR: location_service_get_location_string get height fail");
    }
}

// Copies as much of the field as fits with its NUL.
template <size_t N> void copy_field(char (&dst)[N], const char* field) {
    const size_t length = strnlen(field, N - 1);
    memcpy(dst, field, length);
    dst[length] = '\0';
}

bool update_from_gga(LocationRecord* record, const NmeaFields& fields) {
    if (!update_coordinate(record->latitude, kLatitude, fields) ||
        !update_coordinate(record->longitude, kLongitude, fields)) {
        return false;
    }
    update_height(record, fields);
    copy_field(record->utc, fields.field[kGgaUtc]);
    return true;
}

void update_from_gst(LocationRecord* record, const NmeaFields& fields) {
    copy_field(record->majorAxis, fields.field[kGstMajorAxis]);
    copy_field(record->minorAxis, fields.field[kGstMinorAxis]);
    copy_field(record->orientation, fields.field[kGstOrientation]);
}

} // namespace

int32_t location_service_get_location_string(LocationRecord* record, const char* sentence, uint32_t length) {
    const bool gga = location_nmea_contains(sentence, length, "GGA");
    const bool epe = location_nmea_contains(sentence, length, "EPE");
    const bool gst = location_nmea_contains(sentence, length, "GST");
    if (!gga && !epe && !gst) {
        return -1;
    }
    NmeaFields fields;
    location_nmea_split_fields(sentence, static_cast<int32_t>(length), &fields);
    if (fields.count < kFieldsMin) {
        return -1;
    }
    if (gga && fields.count >= kGgaFieldsMin && !update_from_gga(record, fields)) {
        return -1;
    }
    if (gst && fields.count >= kErrorFieldsMin) {
        update_from_gst(record, fields);
    }
    if (epe && fields.count >= kErrorFieldsMin) {
        copy_field(record->verticalUncertainty, fields.field[kEpeVertical]);
    }
    return 0;
}
