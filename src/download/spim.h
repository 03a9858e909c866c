// The download's SPI master: configuration command, data phase, status polls and wake-up of the chip's slave.
// Process-wide state: one thread only.
#ifndef TAVOR_SPIM_H
#define TAVOR_SPIM_H

#include <cstdint>

inline constexpr uint32_t kSpimMaxData = 4095; // data bytes of one transaction

struct spim_transfer {
    uint8_t* tx_buf; // null only with tx_len 0
    uint32_t tx_len;
    uint8_t* rx_buf; // null only with rx_len 0
    uint32_t rx_len;
};

struct SpimPort {
    const char* path;   // of the device, up to 127 characters
    uint32_t frequency; // Hz
    uint32_t bit_order; // 0: the device turns the bits, 1: the bits are turned here, else: nobody turns them
};

// Opens and configures the device. Returns 1, or 0 with nothing open.
int32_t spim_open(const SpimPort& port);

// Returns 1 when the descriptor closed. Closing twice is harmless: 0.
int32_t spim_close();

// One full-duplex frame of max(tx_len, rx_len) bytes; both buffers hold that many. With bit order 1 the
// transmit buffer comes back with its bits reversed. Returns 0 when at least one byte moved, else -1.
int32_t spim_transfer_full(spim_transfer* transfer);

// Reads the slave's status; unchanged on failure.
void spim_read_status(uint8_t* status);

// Polls the status until all bits of mask are set: at most tries reads, each after delay_ms. Returns 0; 1
// when the tries are used up; 2 after an error status, which was cleared and the slave woken; 3 for a fault
// status.
int32_t spim_wait_status(uint8_t mask, uint32_t tries, uint32_t delay_ms);

// Resets and wakes the slave.
void spim_wakeup();

// Move n (1 to kSpimMaxData) bytes with every retry of the protocol. Failures are only logged; a read that
// fails behind its configuration leaves zeros. While the slave fails each data phase they repeat until the
// download is given up (hdl_progress.h), which also ends all other retries.
void spim_write(const uint8_t* data, uint32_t n);
void spim_read(uint8_t* buffer, uint32_t n);

// Whether the slave has taken the data of the last spim_write.
bool spim_write_taken();

// The same for any n. spim_read_chunked returns n, spim_write_chunked 1; both 0 for null or n = 0.
uint32_t spim_read_chunked(uint8_t* buffer, uint32_t n);
uint32_t spim_write_chunked(const uint8_t* data, uint32_t n);

#endif
