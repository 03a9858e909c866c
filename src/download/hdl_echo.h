// Echo primitives of the boot ROM: it returns what it receives. On a serial link words travel most
// significant byte first, on every other link least significant byte first.
#ifndef TAVOR_HDL_ECHO_H
#define TAVOR_HDL_ECHO_H

#include <cstdint>

// Receive one word. readU16 waits about a second for it, readU32 gives it a second try. Return false, and
// leave value as it is, when nothing came.
bool readU16(uint16_t* value);
bool readU32(uint32_t* value);

// Send a value and return whether expect came back.
bool echoU8(uint8_t value, uint8_t expect);
bool echoU16(uint16_t value, uint16_t expect);
bool echoU32(uint32_t value, uint32_t expect);

#endif
