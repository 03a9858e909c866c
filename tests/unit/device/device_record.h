// Device nodes that record what is done to them.
#ifndef TAVOR_TESTS_DEVICE_RECORD_H
#define TAVOR_TESTS_DEVICE_RECORD_H

#include "interpose/fail.h"
#include "interpose/local.h"
#include "support/capture.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/spi/spidev.h>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

struct DeviceRecord : testing::Test {
    DeviceRecord() {
        local_devices({
            .open =
                [this](const std::string& path, int flags) {
                    calls.push_back("open " + path + (flags == O_RDWR ? "" : " with other flags"));
                    return 0;
                },
            .close = [this](const std::string& path) { calls.push_back("close " + path); },
            .read =
                [this](const std::string&, void* buffer, size_t length) {
                    calls.push_back("read " + std::to_string(length));
                    memset(buffer, 0x5A, length);
                    return moved;
                },
            .write =
                [this](const std::string&, const void* data, size_t length) {
                    calls.push_back("write " + std::string(static_cast<const char*>(data), length));
                    return moved;
                },
            .ioctl = [this](const std::string&, unsigned long request,
                            void* argument) { return control(request, argument); },
            .access = {},
        });
    }
    ~DeviceRecord() override {
        interpose_fail_reset();
        local_devices({});
    }

    int control(unsigned long request, void* argument) {
        if (request == I2C_SLAVE) {
            calls.push_back("slave " + std::to_string(reinterpret_cast<uintptr_t>(argument)));
            return 0;
        }
        if (request == SPI_IOC_MESSAGE(1)) {
            memcpy(&message, argument, sizeof message);
            calls.push_back("clock " + std::to_string(message.len));
            return static_cast<int>(moved);
        }
        uint32_t value = 0; // in the width that the request carries
        memcpy(&value, argument, _IOC_SIZE(request));
        const char* name = request == SPI_IOC_WR_MODE32          ? "mode "
                           : request == SPI_IOC_WR_BITS_PER_WORD ? "bits "
                           : request == SPI_IOC_WR_LSB_FIRST     ? "lsb "
                           : request == SPI_IOC_WR_MAX_SPEED_HZ  ? "speed "
                                                                 : "other ";
        calls.push_back(name + std::to_string(value));
        return 0;
    }

    // Runs the call with a fresh record; the log then holds what it printed.
    int32_t run(const std::function<int32_t()>& call) {
        int32_t result = 0;
        calls.clear();
        log = lines_of(capture_stdout([&] { result = call(); }));
        return result;
    }

    ssize_t moved = 1; // by each transfer
    Lines calls;
    Lines log;
    spi_ioc_transfer message = {};
};

#endif
