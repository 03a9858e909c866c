// A multiplexer slave behind the device node, as the wire sees it: answers like the chip, records every
// frame, and can be told to misbehave. It has no lock of its own: the multiplexer's must keep transfers
// apart.
#ifndef TAVOR_TESTS_HOST_MUX_SLAVE_H
#define TAVOR_TESTS_HOST_MUX_SLAVE_H

#include "support/bytes.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

struct MuxSlave {
    // What the chip holds.
    bool powered = false;
    uint8_t status = 0;
    Bytes to_host;
    Bytes from_host;
    uint32_t room = 4096; // bytes it takes at once

    // What it does wrong.
    size_t failing_transfer = 0;                          // this transfer, counted from 1, fails
    std::function<uint8_t(uint8_t honest)> status_answer; // replaces the status byte
    std::optional<uint32_t> announced;                    // replaces both length registers
    bool ignores_power = false;
    size_t longest = 4096; // bytes; the device refuses a longer frame

    // What it saw.
    std::vector<Bytes> frames;
    std::atomic<size_t> transfers{0};
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};

    // Configuration command in progress.
    uint32_t address = 0;
    uint32_t length = 0;
};

// Moves one frame; false when the transfer fails.
bool mux_slave_transfer(MuxSlave* slave, const uint8_t* out, uint8_t* in, size_t length);

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
