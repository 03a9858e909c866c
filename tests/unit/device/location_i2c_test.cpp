#include "device/location_i2c.h"

#include "interpose/fail.h"
#include "interpose/local.h"
#include "support/capture.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

class LocationI2c : public testing::Test {
protected:
    LocationI2c() {
        local_devices({
            .open =
                [this](const std::string& path, int flags) {
                    calls.push_back("open " + path + " " + std::to_string(flags));
                    return 0;
                },
            .close = [this](const std::string&) { calls.emplace_back("close"); },
            .read =
                [this](const std::string&, void* buffer, size_t length) {
                    calls.push_back("read " + std::to_string(length));
                    memset(buffer, 0x5A, length);
                    return static_cast<ssize_t>(length - 1);
                },
            .write =
                [this](const std::string&, const void* data, size_t length) {
                    calls.push_back("write " + std::string(static_cast<const char*>(data), length));
                    return static_cast<ssize_t>(length - 2);
                },
            .ioctl =
                [this](const std::string&, unsigned long request, void* argument) {
                    calls.push_back((request == I2C_SLAVE ? "slave " : "other ") +
                                    std::to_string(reinterpret_cast<uintptr_t>(argument)));
                    return 0;
                },
            .access = {},
        });
    }
    ~LocationI2c() override {
        interpose_fail_reset();
        local_devices({});
    }

    const location_i2c_config config = {"/dev/i2c-2"};
    Lines calls;
    int32_t fd = -1;
};

} // namespace

TEST_F(LocationI2c, InitOpensForReadingAndWritingAndAsksForNothingElse) {
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(location_i2c_init(&fd, &config), 0); }), "");
    EXPECT_GE(fd, 0);
    EXPECT_EQ(calls, Lines{"open /dev/i2c-2 " + std::to_string(O_RDWR)});
    EXPECT_EQ(location_i2c_deinit(fd), 0);
    EXPECT_EQ(calls.back(), "close");
}

TEST_F(LocationI2c, FailedOpenIsLoggedAndLeavesTheDescriptorAlone) {
    interpose_fail("open", 1, ENOENT);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(location_i2c_init(&fd, &config), -1); }),
              "[LOCSERV] ERR: location_i2c_init, open fail\n");
    EXPECT_EQ(fd, -1);
}

TEST_F(LocationI2c, EveryReadAndWriteSelectsItsSlaveFirst) {
    ASSERT_EQ(location_i2c_init(&fd, &config), 0);
    calls.clear();
    char buffer[4] = {};
    EXPECT_EQ(location_i2c_read(fd, 0x41, buffer, sizeof buffer), 3);
    EXPECT_EQ(location_i2c_write(fd, 0x42, "abcd", 4), 2);
    EXPECT_EQ(calls, (Lines{"slave 65", "read 4", "slave 66", "write abcd"}));
    EXPECT_EQ(buffer[0], 0x5A);
    location_i2c_deinit(fd);
}

TEST_F(LocationI2c, RefusedSlaveAddressIsToldAndMovesNothing) {
    ASSERT_EQ(location_i2c_init(&fd, &config), 0);
    calls.clear();
    char buffer[4] = {};
    const std::string told =
        "[LOCSERV] ERR: [i2c]can't select slave 0x41: a driver of the kernel may own it\n";
    EXPECT_EQ(capture_stdout([&] {
                  interpose_fail("ioctl", 1, EBUSY);
                  EXPECT_EQ(location_i2c_read(fd, 0x41, buffer, sizeof buffer), -1);
                  interpose_fail("ioctl", 1, EBUSY);
                  EXPECT_EQ(location_i2c_write(fd, 0x41, "abcd", 4), -1);
              }),
              told + told);
    EXPECT_EQ(calls, Lines{});
    location_i2c_deinit(fd);
}
