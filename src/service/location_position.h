// What the service does with the chip's sentences.
#ifndef TAVOR_LOCATION_POSITION_H
#define TAVOR_LOCATION_POSITION_H

#include <cstdint>

// All take a sentence of length bytes followed by a NUL.

// Tracks the position, and sends a position block after each GGA sentence.
void location_service_nmea_handle(const char* sentence, uint32_t length);

// Handles a PZUL sentence of at least 10 bytes; shorter ones are dropped.
void location_service_pzul_handle(const char* sentence, uint32_t length);

// Answers the sentence if it is an aiding request and passes it on to the client.
void location_demo_app_cmd_rsp_callback(const char* sentence, uint32_t length);

#endif
