// Splitting of sentences into fields.
#ifndef TAVOR_LOCATION_NMEA_FIELDS_H
#define TAVOR_LOCATION_NMEA_FIELDS_H

#include <cstdint>

inline constexpr int32_t kNmeaFieldsMax = 80;
inline constexpr int32_t kNmeaFieldSize = 20; // its NUL included

struct NmeaFields {
    char field[kNmeaFieldsMax][kNmeaFieldSize]; // those after the last are empty
    int32_t count;                              // separators seen, at most kNmeaFieldsMax - 1
    int32_t checksum; // the first two characters of the last field, read as hexadecimal
};

// Splits length bytes of a sentence at ',' and '*', from index 5 on: field 0 is the last letter of a standard
// address, or the number of a PZUL sentence. Characters past a field's room and fields past kNmeaFieldsMax
// are dropped.
void location_nmea_split_fields(const char* sentence, int32_t length, NmeaFields* out);

// Whether text stands anywhere in the length bytes of the sentence.
bool location_nmea_contains(const char* sentence, uint32_t length, const char* text);

// The decimal number at the head of a field, 0 when there is none; the nearest end of the range when it is
// out of it.
int32_t location_nmea_number(const char* field);

#endif
