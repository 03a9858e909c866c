// Orbit data for the chip: the segment of the local assistance files that covers the chip's time, sent record
// by record.
#ifndef TAVOR_XOD_HOST_AIDING_H
#define TAVOR_XOD_HOST_AIDING_H

#include <cstdint>

// The chip's numbers for the constellations, which are not the file types.
enum xod_constellation : int32_t {
    XOD_CONSTELLATION_GPS = 0,
    XOD_CONSTELLATION_GLONASS = 1,
    XOD_CONSTELLATION_GALILEO = 2,
    XOD_CONSTELLATION_BEIDOU = 3,
};

// Sends the constellation's records for the GPS week and its second tow_seconds, holding the download lock;
// gives way to a pending stop at once, while a transfer has the lock, and before each record. Returns 1 when
// a segment was sent, else 0 after logging why.
int32_t xod_host_aiding(int8_t constellation, uint32_t week, int32_t tow_seconds);

// The chip's number for the satellite of a record (72 bytes); 0 for an unknown constellation. A number below
// the constellation's first wraps around.
uint32_t xod_host_aiding_sv_id(int32_t constellation, const uint8_t* record);

#endif
