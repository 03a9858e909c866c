// Answers to the chip's aiding requests.
#ifndef TAVOR_LOCATION_AIDING_H
#define TAVOR_LOCATION_AIDING_H

#include "nmea/location_nmea_fields.h"

#include <cstdint>

// UTC now: bits 0 to 15 year, 16 to 23 month (1 to 12), 24 to 31 day, 32 to 39 hour, 40 to 47 minute, 48 to
// 55 second. 0 on failure.
uint64_t location_service_get_utc();

// Answers an aiding request, given as the fields of its sentence: kind 0 orbit data, 1 reference time, 2
// reference position.
void location_aiding_answer(const NmeaFields* fields);

#endif
