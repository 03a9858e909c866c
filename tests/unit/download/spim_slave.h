// The board's chip below the download's transport, in place of the SPI device.
#ifndef TAVOR_TESTS_SPIM_SLAVE_H
#define TAVOR_TESTS_SPIM_SLAVE_H

#include "chip/chip.h"
#include "device/location_spi.h"
#include "download/spim.h"
#include "support/bytes.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;
using Times = std::vector<int64_t>;

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

    // Answers to the next status reads, and to each after a data frame; then the chip's own.
    std::deque<int> statuses;
    std::optional<int> data_status;
    std::function<bool(const Bytes& frame)> fails = [](const Bytes&) { return false; };
    int32_t failed_result = -1; // of a frame that fails
    std::function<void()> at_frame = [] {};
};

extern SpimSlave spim_slave;

struct SpimTest : testing::Test {
    SpimTest();
    ~SpimTest() override;

    // Opens the transport anew with this bit order, to a chip that is awake; returns what opening says.
    static int32_t start(uint32_t bit_order = 0);
    // Runs the body with the log captured.
    void run(const std::function<void()>& body);
    // What the chip has to say, and its faults.
    static void chip_sends(const Bytes& data);
    static void chip_has(const std::string& fault, const std::string& value);
    static uint64_t violations();

    Lines log; // without stamps
};

// "0A 00" for each frame.
Lines frames_as_text();
uint32_t frames_with(uint8_t opcode);

#endif
