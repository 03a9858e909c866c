#include "device/location_i2c.h"

#include "device_record.h"

#include <cerrno>

namespace {

struct LocationI2c : DeviceRecord {
    int32_t init() {
        return run([&] { return location_i2c_init(&fd, &config); });
    }

    const location_i2c_config config = {"/dev/i2c-2"};
    int32_t fd = -1;
};

} // namespace

TEST_F(LocationI2c, InitOpensForReadingAndWritingAndAsksForNothingElse) {
    interpose_fail("open", 1, ENOENT);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(log, Lines{"[LOCSERV] ERR: location_i2c_init, open fail"});
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(calls, Lines{"open /dev/i2c-2"});
    EXPECT_EQ(location_i2c_deinit(fd), 0);
    EXPECT_EQ(calls.back(), "close /dev/i2c-2");
}

TEST_F(LocationI2c, EveryReadAndWriteSelectsItsSlaveFirst) {
    ASSERT_EQ(init(), 0);
    moved = 3;
    char buffer[4] = {};
    EXPECT_EQ(run([&] { return location_i2c_read(fd, 0x41, buffer, sizeof buffer); }), 3);
    EXPECT_EQ(calls, (Lines{"slave 65", "read 4"}));
    EXPECT_EQ(buffer[0], 0x5A);
    EXPECT_EQ(run([&] { return location_i2c_write(fd, 0x42, "abcd", 4); }), 3);
    EXPECT_EQ(calls, (Lines{"slave 66", "write abcd"}));

    const Lines told = {"[LOCSERV] ERR: [i2c]can't select slave 0x41: a driver of the kernel may own it"};
    interpose_fail("ioctl", 1, EBUSY);
    EXPECT_EQ(run([&] { return location_i2c_read(fd, 0x41, buffer, sizeof buffer); }), -1);
    EXPECT_EQ(log, told);
    EXPECT_TRUE(calls.empty()) << "moves nothing";
    interpose_fail("ioctl", 1, EBUSY);
    EXPECT_EQ(run([&] { return location_i2c_write(fd, 0x41, "abcd", 4); }), -1);
    EXPECT_EQ(log, told);
    EXPECT_TRUE(calls.empty()) << "moves nothing";
    location_i2c_deinit(fd);
}
