// Pure calculations of the assistance download: how long the predictions last, which file comes next, when.
#ifndef TAVOR_XOD_SCHEDULE_H
#define TAVOR_XOD_SCHEDULE_H

#include "assist/xod_file.h"

#include <cstdint>

// Bits of the constellation mask.
enum xod_mask : uint32_t {
    XOD_MASK_GPS = 1,
    XOD_MASK_GPS_GLONASS = 2, // wins over XOD_MASK_GPS
    XOD_MASK_BEIDOU = 4,
    XOD_MASK_GALILEO = 8,
};

// Hours from 1980-01-06 00:00 UTC; month 1 to 12, day 1 to 31, hour 0 to 23.
int32_t gps_hour_from_utc(int32_t year, int32_t month, int32_t day, int32_t hour);

// Start hour of a record: the low 24 bits of its first word.
uint32_t xod_start_hour(uint32_t first_word);

// Hours of prediction left at the GPS hour now in a file that starts at the hour start; 0 when it has run
// out. Stores the hour of its end, or 0.
int32_t xod_valid_hours(uint32_t start, int32_t now, uint32_t* end_out);

// Gives the hours of prediction left for a type with this many numbered files, and the hour of its end.
using xod_hours_reader = int32_t (*)(uint32_t type, uint32_t count, uint32_t* end_out);

struct XodSelection {
    uint32_t type;
    uint32_t valid; // hours left, 0 for a type to be downloaded at once
    uint32_t end;   // GPS hour
};

// Chooses the enabled type that runs out first, on a tie the earlier one. Reads no further once a type has
// run out. What it finds no value for stays as the caller set it.
void xod_select_type(uint32_t mask, uint32_t count, xod_hours_reader read_hours, XodSelection* selection);

// Valid hours as the delay takes them: at most 72.
uint32_t xod_clamped_hours(uint32_t valid);

// Milliseconds until the next download, from at most 72 valid hours. Unsigned throughout: with less than
// about two days left the result can be too large for a timer.
uint32_t xod_next_download_ms(uint32_t valid, uint32_t end, uint32_t retries);

// Milliseconds until a failed download is tried again, after this many retries.
uint32_t xod_retry_ms(uint32_t retries);

#endif
