// An open multiplexer with a well-behaved slave behind it.
#ifndef TAVOR_TESTS_HOST_MUX_FIXTURE_H
#define TAVOR_TESTS_HOST_MUX_FIXTURE_H

#include "host_mux_slave.h"
#include "mux/host_mux.h"
#include "mux/host_mux_spi.h"
#include "mux/host_mux_spi_slave.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

using Lines = std::vector<std::string>;
using Frames = std::vector<Bytes>;

struct HostMux : testing::Test {
    void SetUp() override {
        reset_sleeps();
        mux_slave_attach(&slave);
        host_mux_spi_port_config config{};
        config.frequency = 1000000;
        snprintf(config.path, sizeof config.path, "/dev/spidev1.0");
        ASSERT_EQ(host_mux_init(&handle, &config), 0);
    }

    void TearDown() override {
        EXPECT_FALSE(slave.overlapped);
        EXPECT_EQ(host_mux_deinit(&handle), 0);
        EXPECT_EQ(host_mux_spi_power_counter(), 0);
    }

    // One receive into a buffer of capacity bytes; false when it failed.
    bool receive(uint32_t capacity = 4095) {
        received.assign(capacity, 0xEE);
        uint32_t length = capacity;
        int32_t result = 0;
        lines = lines_of(capture_stdout([&] { result = host_mux_rx(&handle, received.data(), &length); }));
        received.resize(result == 0 ? length : 0);
        return result == 0;
    }

    bool send(const Bytes& data) {
        sent = static_cast<uint32_t>(data.size());
        int32_t result = 0;
        lines = lines_of(capture_stdout([&] { result = host_mux_tx(&handle, data.data(), &sent); }));
        return result == 0;
    }

    bool printed(const std::string& line) const {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    size_t times_printed(const std::string& line) const {
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
    }

    size_t frames_of(uint8_t opcode) const {
        return static_cast<size_t>(
            std::count_if(slave.frames.begin(), slave.frames.end(),
                          [opcode](const Bytes& frame) { return frame[0] == opcode; }));
    }

    // Nobody holds the mutex, nothing is counted, and the next receive works.
    void expect_usable(int32_t counter = 0) {
        EXPECT_EQ(host_mux_spi_power_counter(), counter);
        ASSERT_EQ(pthread_mutex_trylock(g_host_mux_spi_master_mutex), 0);
        pthread_mutex_unlock(g_host_mux_spi_master_mutex);
        slave.failing_transfer = slave.empty_transfer = 0;
        slave.status_answer = nullptr;
        slave.chip.faults = {};

        slave.give({'o', 'k'});
        EXPECT_TRUE(receive());
        EXPECT_EQ(received, Bytes({'o', 'k'}));
        EXPECT_EQ(host_mux_spi_power_counter(), counter);
    }

    const TestLimit limit;
    MuxSlave slave;
    host_mux_handle handle{HOST_MUX_BUS_SPI, kHostMuxClosed};
    Lines lines;
    Bytes received;
    uint32_t sent = 0;
};

inline Bytes counted_bytes(size_t count) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + i / 256);
    }
    return bytes;
}

// What a status query prints that is answered at once.
inline Lines answered_at_once(const std::string& status) {
    const std::string query = "portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY";
    return {query + "  Status receive: " + status + "\r", query + " OK, retry counter:0,\r"};
}

inline Lines joined(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

inline const Lines kPoweredOn = joined({answered_at_once("0x1"),
                                        {"portable_HAL_SPI_POWER_ON_WITHOUT_COUNTER success!!!\r",
                                         "host_mux_spi_power_on: success!!! counter=1\r"}});
inline const Lines kPoweredOff = joined({answered_at_once("0x0"),
                                         {"portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER success!!!\r",
                                          "portable_HAL_SPI_POWER_OFF: success!!!, counter=0\r"}});

// What the device access prints of every failed transfer.
inline const std::string kTransferFailed = "[LOCSERV] ERR: [spi]can't send spi message";

inline const Bytes kStatusFrame = {0x06, 0x00};
inline const Bytes kOnFrame = {0x04};
inline const Bytes kOffFrame = {0x02};

#endif
