// Escaping of the flow control characters, so that binary data can pass a line on which XON and XOFF are
// special.
#ifndef TAVOR_LOCATION_UART_ESCAPE_H
#define TAVOR_LOCATION_UART_ESCAPE_H

#include <cstdint>

inline constexpr uint8_t kUartXon = 0x11;
inline constexpr uint8_t kUartXoff = 0x13;
inline constexpr uint8_t kUartEscape = 0x77;

// The byte that is sent after an escape byte in place of a plain one; 0 for a byte that is sent as it is.
uint8_t location_uart_partner_of(uint8_t plain);

// The plain byte that a byte after an escape byte stands for; 0 for one that stands for none.
uint8_t location_uart_plain_of(uint8_t partner);

// Escapes length bytes of input into output, which has room for twice as many. Returns the bytes stored.
uint32_t location_uart_escape(const uint8_t* input, uint32_t length, uint8_t* output);

// Decodes n bytes of buffer in place and zeroes what becomes free after them. *escape_state (0 at the start
// of a stream) carries an escape byte over to the next call. Returns the decoded length: at most n, or n + 1
// when an escape byte that ended the call before is followed by a byte it can't stand before. So check the
// result against the buffer's size before reading on.
uint32_t location_uart_unescape(uint8_t* buffer, uint32_t n, uint32_t* escape_state);

#endif
