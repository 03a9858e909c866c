// A chip's SPI slave below the download's transport: the functions of the SPI device.
#ifndef TAVOR_TESTS_SPIM_SLAVE_H
#define TAVOR_TESTS_SPIM_SLAVE_H

#include "device/location_spi.h"
#include "download/spim.h"
#include "support/bytes.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

inline constexpr int kFails = -1; // a status read that moves nothing

struct SpimSlave {
    SpimPort port = {"/dev/spidev0.0", 5000000, 0};

    // What the device is told and asked.
    std::vector<location_spi_config> opened;
    std::vector<int32_t> closed;
    int32_t open_result = 0;
    int32_t close_result = 0;

    // Frames as they stand on the wire with the least significant bit first, in order, status reads left out.
    std::vector<Bytes> frames;
    uint32_t status_reads = 0;
    std::vector<bool> has_rx;

    // Answers to the next status reads; then those of a slave that does what it is told.
    std::deque<int> statuses;
    std::function<bool(const Bytes& frame)> fails = [](const Bytes&) { return false; };
    int32_t failed_result = -1; // of a frame that fails
    std::function<void()> at_frame = [] {};
    std::function<int(uint8_t last)> status_after; // of a slave of the test's own
    Bytes data;                                    // that it sends
};

extern SpimSlave spim_slave;

struct SpimTest : testing::Test {
    SpimTest();
    ~SpimTest() override;

    // Opens the transport anew with this bit order; returns what opening says.
    static int32_t reopen(uint32_t bit_order);
    // Runs the body with the log caught.
    void run(const std::function<void()>& body);

    Lines log; // without stamps
};

// "0A 00" for each frame.
Lines frames_as_text();
uint32_t frames_with(uint8_t opcode);

#endif
