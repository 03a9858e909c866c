// Commands to the chip.
#ifndef TAVOR_LOCATION_COMMAND_H
#define TAVOR_LOCATION_COMMAND_H

#include <cstdint>

// Sends the body as a PZUL sentence with checksum; a body that makes more than 351 characters with the talker
// is cut. Returns 0 when the link took at least one byte, else -1.
int32_t location_command_send(const char* body);

#endif
