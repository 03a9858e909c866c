// The chip's boot ROM: an echo protocol that is active for a moment after power-up. Nearly all failures are
// logged; unless stated otherwise, operations return success.
#ifndef TAVOR_HDL_BROM_H
#define TAVOR_HDL_BROM_H

#include <cstdint>

inline constexpr uint32_t kBromUidSize = 16; // bytes

// Power-cycles the chip and synchronises with its boot ROM. Fails when its first byte is not answered
// correctly for 10 s; wrong answers to the later ones make it repeat until a stop is announced
// (hdl_progress.h).
bool hdl_brom_handshake();

// Reads the chip's identifier into uid (kBromUidSize bytes).
bool hdl_brom_read_uid(uint8_t* uid);

// Writes one 16-bit register, or those that the chip variant needs.
bool hdl_brom_set_register(uint32_t addr, uint16_t value);
bool hdl_brom_set_registers();

// Changes the line speed on both sides.
bool hdl_brom_set_baudrate(uint32_t baud);

// Uploads the download agent that the settings name. Returns success. Kept: an error status of the boot ROM
// before or after the upload counts as success, and the next step fails.
bool hdl_brom_send_da();

// Starts the uploaded download agent.
bool hdl_brom_jump_da();

// XOR of all 16-bit little-endian words, a last odd byte counting as a low byte; 0 for null or n = 0.
uint16_t bromChecksum(const uint8_t* data, uint32_t n);

#endif
