// The download's SPI master: configuration command, data phase, status polls and wake-up of the chip's slave.
// Process-wide state: one thread only.
#ifndef TAVOR_SPIM_H
#define TAVOR_SPIM_H

#include "download/spim_frame.h"

#include <cstdint>

inline constexpr uint32_t kSpimMaxData = 4095; // data bytes of one transaction

// Reads the slave's status; unchanged on failure.
void spim_read_status(uint8_t* status);

// Polls the status until all bits of mask are set: at most tries reads, each after delay_ms. Returns 0; 1
// when the tries are used up; 2 after an error status, which was cleared and the slave woken; 3 for a fault
// status.
int32_t spim_wait_status(uint8_t mask, uint32_t tries, uint32_t delay_ms);

// Resets and wakes the slave.
void spim_wakeup();

// Move n (1 to kSpimMaxData) bytes with every retry of the protocol. Failures are only logged; a read that
// fails after its configuration leaves zeros. While the slave fails each data phase they repeat until the
// download is given up (hdl_progress.h), which also ends all other retries.
void spim_write(const uint8_t* data, uint32_t n);
void spim_read(uint8_t* buffer, uint32_t n);

// Whether the slave has taken the data of the last spim_write.
bool spim_write_taken();

// The same for any n. spim_read_chunked returns n, spim_write_chunked 1; both 0 for null or n = 0.
uint32_t spim_read_chunked(uint8_t* buffer, uint32_t n);
uint32_t spim_write_chunked(const uint8_t* data, uint32_t n);

#endif
