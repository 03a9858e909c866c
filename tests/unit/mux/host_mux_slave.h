// The board's chip behind the SPI node of this process, for tests of the multiplexer: records every frame and
// can be told to misbehave. It has no lock of its own: the multiplexer's must keep transfers apart.
#ifndef TAVOR_TESTS_HOST_MUX_SLAVE_H
#define TAVOR_TESTS_HOST_MUX_SLAVE_H

#include "chip/chip.h"
#include "support/bytes.h"
#include "support/test_limit.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct MuxSlave {
    MuxSlave();

    // What waits for the host: these bytes and no others.
    void give(const Bytes& bytes);
    // Everything that the host has written.
    Bytes taken() const;

    Chip chip; // powered, sends nothing by itself

    // What the device or the chip does wrong.
    size_t failing_transfer = 0;                          // this transfer, counted from 1, fails
    size_t empty_transfer = 0;                            // this one succeeds without touching the buffer
    size_t longest = 4096;                                // bytes; a longer frame is refused
    std::function<uint8_t(uint8_t honest)> status_answer; // replaces the status byte

    // What it saw.
    std::vector<Bytes> frames;
    std::atomic<size_t> transfers{0};
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
};

// Puts the slave behind "/dev/spidev1.0".
void mux_slave_attach(MuxSlave* slave);

// Microseconds that the code under test asked to sleep; it sleeps much less.
uint64_t slept_us();
// Sleeps of exactly this many microseconds.
size_t sleeps_of(unsigned us);
void reset_sleeps();

// Makes the allocations of the code under test fail.
void fail_allocations(bool fail);

#endif
