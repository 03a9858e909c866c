// Reading the flash and the one-time programmable area back into files. Failures are logged.
#ifndef TAVOR_HDL_READBACK_H
#define TAVOR_HDL_READBACK_H

#include "download/hdl_kite.h"

#include <cstdint>

// The rest completes the interface; the daemon does not call it.

// Appends kReadbackSize bytes of the flash from address on to a file. Returns success.
bool hdl_readback_kite(const char* path, uint32_t address);

// Appends length bytes of the one-time programmable area to a file; more than kReadbackSize are refused.
// Returns success, which only a length of kReadbackSize can have.
bool hdl_read_otp_kite(const char* path, uint32_t address, uint32_t length);

// Write [start, start + length) to a file of their own: an old file is deleted first. Whole requests are
// written, up to the end of the 32-bit addresses. Return success.
bool hdl_readback_to_file(const char* path, uint32_t start, uint32_t length);
bool hdl_read_otp_to_file(const char* path, uint32_t start, uint32_t length);

#endif
