// The link to boot ROM and download agent. SPI reports no failed transfer: what was sent counts as gone, and
// what did not come reads as zeros.
#ifndef TAVOR_HDL_TRANSPORT_H
#define TAVOR_HDL_TRANSPORT_H

#include <cstdint>

struct DownloadSettings;

inline constexpr uint32_t kHdlSendFlag = 1; // of every command but the one that opens flow control

// Opens the link that the settings name. Returns success.
bool hdl_transport_open(const DownloadSettings& settings);

// Closing twice is harmless.
void hdl_transport_close();

// Sends n bytes. send_flag belongs to the interface for links that need it; SPI does not use it. Returns
// success.
bool hdl_transport_send(const uint8_t* data, uint32_t n, uint32_t send_flag);

// Whether the chip's side of the link has taken the end of what was sent last.
bool hdl_transport_taken();

// Receives up to n bytes. Returns how many came, 0 when none.
uint32_t hdl_transport_receive(uint8_t* buffer, uint32_t n);

// For links other than SPI; on SPI they do nothing.

// Hook before the link opens. Returns success.
bool hdl_transport_prepare();

// Switches the host's side of a serial line to baud. Returns success.
bool hdl_transport_set_speed(uint32_t baud);

// Hook of the third kind of link.
void hdl_transport_link_hook(uint32_t value);

#endif
