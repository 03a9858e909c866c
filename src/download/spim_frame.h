// The device below the download's SPI master: single frames, their bit order, and the log of those that fail.
// Process-wide state: one thread only.
#ifndef TAVOR_SPIM_FRAME_H
#define TAVOR_SPIM_FRAME_H

#include <cstdint>

struct spim_transfer {
    uint8_t* tx_buf; // null only with tx_len 0
    uint32_t tx_len;
    uint8_t* rx_buf; // null only with rx_len 0
    uint32_t rx_len;
};

struct SpimPort {
    const char* path;   // of the device, up to 127 characters
    uint32_t frequency; // Hz
    uint32_t bit_order; // 0: the device reverses the bits, 1: they are reversed here, else: they are not
};

// Opens and configures the device. Returns 1, or 0 with nothing open.
int32_t spim_open(const SpimPort& port);

// Returns 1 when the descriptor closed. Closing twice is harmless: 0.
int32_t spim_close();

// One full-duplex frame of max(tx_len, rx_len) bytes; both buffers hold that many. With bit order 1 the
// transmit buffer comes back with its bits reversed. Returns 0 when at least one byte moved, else -1.
int32_t spim_transfer_full(spim_transfer* transfer);

// What may fail in the kernel, each with its line of the log.
enum SpimCall : uint8_t {
    kSpimConfigureReadCall,
    kSpimConfigureWriteCall,
    kSpimReadDataCall,
    kSpimWriteDataCall,
    kSpimReadStatusCall,
    kSpimClearErrorCall,
    kSpimWakeupCall,
    kSpimWakeupPollCall,
    kSpimCalls,
};

// The same; a failure is logged as the call's, at most once a second while it repeats. Returns success.
bool spim_exchange(SpimCall call, spim_transfer transfer);

#endif
