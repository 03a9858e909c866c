// The location file: the last position as key=value lines, written on request, read back when the chip asks
// for aiding.
#ifndef TAVOR_LOCATION_FILE_H
#define TAVOR_LOCATION_FILE_H

#include "nmea/location_record.h"

#include <cstdint>

struct AidingPosition {
    double latitude;            // degrees
    double longitude;           // degrees
    double height;              // metres
    double majorAxis;           // metres
    double minorAxis;           // metres
    double orientation;         // degrees
    double verticalUncertainty; // metres
};

// Writes the record to the configured file: in its place, or with the setting "keep good files=" 1 to a file
// beside it that takes its place when it is whole. Returns 0 or -1.
int32_t location_service_save_location(const LocationRecord* record);

// Reads the configured file. Returns 0 when seven values were read, else -1; values not found are 0.
int32_t location_service_get_position(AidingPosition* out);

#endif
