// Framing of the chip's output: pure functions over bytes.
#ifndef TAVOR_LOCATION_FRAME_H
#define TAVOR_LOCATION_FRAME_H

#include <cstdint>

enum location_frame_type : uint32_t {
    FRAME_NONE = 0,   // bytes to drop
    FRAME_NMEA = 1,   // standard sentence with a good checksum
    FRAME_PZUL = 2,   // PZUL sentence with a good checksum
    FRAME_BINARY = 3, // binary frame with a good checksum
};

// Looks at the head of length bytes. Returns how many of them form the next frame (*type tells its kind) or
// are to be dropped (FRAME_NONE); 0 means that more data is needed.
uint32_t location_io_frame_parse(const uint8_t* buffer, uint32_t length, uint32_t* type);

// XOR of n bytes.
uint8_t location_nmea_checksum(const uint8_t* p, int32_t n);

// XOR of n bytes, 0 for a null pointer.
uint8_t location_binary_checksum(const uint8_t* p, int32_t n);

#endif
