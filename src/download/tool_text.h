// Byte and text helpers of the firmware download.
#ifndef TAVOR_TOOL_TEXT_H
#define TAVOR_TOOL_TEXT_H

#include <cstdint>

// Reverses n bytes in place; nothing for a null buffer.
void tool_reverse_bytes(uint8_t* buffer, uint32_t n);

// Joins two texts into a new one that the caller frees; null when there is no memory.
char* tool_concat(const char* a, const char* b);

// Prints "[I]LABEL:", the bytes in hexadecimal with ':' between, and a newline.
void tool_hex_dump(const uint8_t* bytes, const char* label, uint32_t n);

// The rest completes the interface; the daemon does not call it.

inline constexpr uint32_t kToolEscapeSize = 9000; // bytes of an escape's output

// Escapes 0x77, XON and XOFF, for a serial line with software flow control. output: kToolEscapeSize bytes,
// padded with zeros; it ends at what does not fit, a pair is never split. Returns n plus the pairs written:
// the bytes written where all fitted, else kToolEscapeSize or more. 0 for null or n = 0.
uint32_t tool_escape_flow_control(const uint8_t* input, uint32_t n, uint8_t* output);

// Undoes the escape in place. An escape byte at the end pairs with the first byte of the next call. Returns n
// less the pairs undone and zeroes the bytes from there to n; 0 for null or n = 0.
uint32_t tool_unescape_flow_control(uint8_t* buffer, uint32_t n);

#endif
