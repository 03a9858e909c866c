// The position record, kept up to date from GGA, GST and EPE sentences.
#ifndef TAVOR_LOCATION_RECORD_H
#define TAVOR_LOCATION_RECORD_H

#include "tavor/protocol.h"

#include <cstdint>

// The latest position as text: one block of the client protocol, in which a text may run on into the next
// field.
using LocationRecord = tavor_location_record;

// Updates the record from a sentence of length bytes followed by a NUL. Returns 0, or -1 when the sentence is
// none of the three, has too few fields or a coordinate without a decimal point.
int32_t location_service_get_location_string(LocationRecord* record, const char* sentence, uint32_t length);

#endif
